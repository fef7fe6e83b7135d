// SPDX-License-Identifier: LGPL-2.1-or-later
// tarvek-codegen: C++ headers for typed interfaces from D-Bus introspection XML. It reads
// every input, checks and maps all of them, and only then writes; a problem anywhere is
// reported as "FILE:LINE: text" on stderr, with exit status 1 and no file written.
#include "checks.hpp"
#include "emitter.hpp"
#include "mapping.hpp"
#include "output.hpp"
#include "xml_reader.hpp"

#include <cstring>
#include <iostream>
#include <string>
#include <vector>

namespace {

constexpr char const* usage = R"(Usage: tarvek-codegen [OPTION]... FILE.xml...
Writes a C++ header per D-Bus interface found in the introspection XML files, named after
the interface (org.example.Lamp.hpp), with a class derived from tarvek::provider::Interface.

  -o, --output-dir DIR  write the headers into DIR (default: the current directory)
  --header FILE         write every interface of every input into the one header FILE
  --namespace NS        put the classes into namespace NS ("" for the global one) instead
                        of the namespaces taken from the interface names
  --async               every method handler answers through a Responder (a method's
                        annotation org.tarvek.Async "false" keeps it synchronous)
  --stubs               also write a class <Name>Stub whose handlers fail every call
  --check               read, check and map the input only; write nothing
  -h, --help            show this text
)";

struct Command {
    tarvek::codegen::Options options;
    std::string output_dir = ".";
    std::string header;
    bool check_only = false;
    std::vector<std::string> inputs;
};

// Returns false (after a message) for a command line that makes no sense; sets `help` for
// --help, after which nothing else is done.
bool parse(int argc, char** argv, Command& command, bool& help)
{
    for (int i = 1; i < argc; ++i) {
        std::string const arg = argv[i];
        auto value = [&]() -> char const* {
            if (i + 1 >= argc) {
                std::cerr << "tarvek-codegen: " << arg << " needs a value\n";
                return nullptr;
            }
            return argv[++i];
        };
        if (arg == "-h" || arg == "--help") {
            std::cout << usage;
            help = true;
            return true;
        } else if (arg == "-o" || arg == "--output-dir") {
            auto const* v = value();
            if (!v)
                return false;
            command.output_dir = v;
        } else if (arg == "--header") {
            auto const* v = value();
            if (!v)
                return false;
            command.header = v;
        } else if (arg == "--namespace") {
            auto const* v = value();
            if (!v)
                return false;
            command.options.cpp_namespace = v;
        } else if (arg == "--async") {
            command.options.all_async = true;
        } else if (arg == "--stubs") {
            command.options.stubs = true;
        } else if (arg == "--check") {
            command.check_only = true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            std::cerr << "tarvek-codegen: unknown option " << arg << "\n" << usage;
            return false;
        } else {
            command.inputs.push_back(arg);
        }
    }
    if (command.inputs.empty()) {
        std::cerr << "tarvek-codegen: no input files\n" << usage;
        return false;
    }
    return true;
}

// Headers name their source without its directory, so that they are the same wherever
// they are built.
std::string base_name(std::string const& path)
{
    auto const slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

} // namespace

int main(int argc, char** argv)
{
    using namespace tarvek::codegen;
    Command command;
    bool help = false;
    if (!parse(argc, argv, command, help))
        return 2;
    if (help)
        return 0;
    try {
        std::vector<Document> documents;
        for (auto const& path : command.inputs) {
            documents.push_back(read_xml_file(path));
            check_document(documents.back());
        }
        check_distinct(documents);

        std::vector<std::pair<std::string, std::string>> files;
        std::vector<MappedInterface> all;
        for (auto const& document : documents) {
            if (document.interfaces.empty())
                throw InputError(document.file, 1, "no <interface> in this file");
            for (auto const& interface : document.interfaces) {
                auto mapped = map_interface(interface, command.options);
                if (command.header.empty())
                    files.emplace_back(command.output_dir + "/" + interface.name + ".hpp",
                        emit_header({mapped}, base_name(document.file), command.options));
                all.push_back(std::move(mapped));
            }
        }
        if (!command.header.empty()) {
            std::string sources;
            for (auto const& path : command.inputs)
                sources += (sources.empty() ? "" : ", ") + base_name(path);
            files.emplace_back(command.header, emit_header(all, sources, command.options));
        }
        if (!command.check_only)
            write_all(files);
    } catch (InputError const& e) {
        std::cerr << e.what() << '\n';
        return 1;
    } catch (std::exception const& e) {
        std::cerr << "tarvek-codegen: " << e.what() << '\n';
        return 1;
    }
    return 0;
}
