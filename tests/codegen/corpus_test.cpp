// SPDX-License-Identifier: LGPL-2.1-or-later
// The front end over real published XML (tests/codegen/corpus, and whatever the machine
// has in /usr/share/dbus-1/interfaces): every file reads and checks; every interface
// either maps or is refused with its file, line and what is not supported yet.
#include "checks.hpp"
#include "mapping.hpp"
#include "xml_reader.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace tarvek::codegen {
namespace {

namespace fs = std::filesystem;

std::vector<fs::path> xml_files(fs::path const& folder)
{
    std::vector<fs::path> files;
    if (!fs::is_directory(folder))
        return files;
    for (auto const& entry : fs::recursive_directory_iterator(folder))
        if (entry.is_regular_file() && entry.path().extension() == ".xml")
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

struct Outcome {
    unsigned files = 0;
    unsigned mapped = 0;
    std::vector<std::string> unsupported;
};

Outcome run_front_end(std::vector<fs::path> const& files)
{
    Outcome outcome;
    for (auto const& file : files) {
        SCOPED_TRACE(file.string());
        Document document;
        EXPECT_NO_THROW({
            document = read_xml_file(file.string());
            check_document(document);
        });
        ++outcome.files;
        for (auto const& interface : document.interfaces) {
            try {
                map_interface(interface, {});
                ++outcome.mapped;
            } catch (InputError const& e) {
                std::string const text = e.what();
                std::string const prefix = file.string() + ":";
                EXPECT_THAT(text, ::testing::StartsWith(prefix));
                // FILE:LINE: unsupported..., with a line number that is not 0.
                auto const digits = text.find_first_not_of("0123456789", prefix.size());
                EXPECT_GT(digits, prefix.size()) << text;
                EXPECT_NE(text[prefix.size()], '0') << text;
                EXPECT_THAT(text.substr(digits), ::testing::StartsWith(": unsupported")) << text;
                outcome.unsupported.push_back(text);
            }
        }
    }
    return outcome;
}

TEST(Corpus, ReadsChecksAndMapsEveryPublishedFileOrSaysWhatIsNotSupported)
{
    fs::path const corpus = TARVEK_CODEGEN_TEST_DATA "/corpus";
    std::set<std::string> packages;
    for (auto const& file : xml_files(corpus))
        packages.insert(fs::relative(file, corpus).begin()->string());
    EXPECT_GE(packages.size(), 3U);

    auto const outcome = run_front_end(xml_files(corpus));
    EXPECT_GE(outcome.files, 5U);
    // What the round-trip test publishes must stay mappable.
    EXPECT_GE(outcome.mapped, 9U);
    for (auto const& u : outcome.unsupported)
        std::cout << "  not yet: " << u << '\n';
    std::cout << outcome.files << " files, " << outcome.mapped << " interfaces mapped, "
              << outcome.unsupported.size() << " waiting for library support\n";
}

TEST(Corpus, ReadsAndChecksTheInterfacesInstalledOnThisMachine)
{
    auto const files = xml_files("/usr/share/dbus-1/interfaces");
    if (files.empty())
        GTEST_SKIP() << "no /usr/share/dbus-1/interfaces here";
    auto const outcome = run_front_end(files);
    std::cout << outcome.files << " installed files, " << outcome.mapped << " interfaces mapped, "
              << outcome.unsupported.size() << " waiting for library support\n";
}

} // namespace
} // namespace tarvek::codegen
