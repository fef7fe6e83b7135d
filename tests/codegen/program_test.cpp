// SPDX-License-Identifier: LGPL-2.1-or-later
// The tarvek-codegen program as a build runs it: what it writes, its exit status, and that
// a problem in any input leaves every output as it was.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <sys/wait.h>

namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class CodegenProgram : public ::testing::Test {
protected:
    CodegenProgram()
    {
        std::string pattern = (fs::temp_directory_path() / "tarvek-codegen-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            throw std::runtime_error("mkdtemp failed");
        dir = pattern;
        fs::create_directory(dir / "out");
    }
    ~CodegenProgram() override { fs::remove_all(dir); }

    fs::path write(std::string const& name, std::string const& text)
    {
        std::ofstream(dir / name) << text;
        return dir / name;
    }
    static std::string read(fs::path const& path)
    {
        std::ifstream in(path);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }
    // Runs the program with `arguments`; returns its exit status and keeps its stderr.
    int run(std::string const& arguments)
    {
        std::string const command = std::string(TARVEK_CODEGEN_PROGRAM) + " " + arguments + " >/dev/null 2>"
            + (dir / "stderr").string();
        int const status = std::system(command.c_str());
        errors = read(dir / "stderr");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::vector<std::string> outputs() const
    {
        std::vector<std::string> names;
        for (auto const& entry : fs::directory_iterator(dir / "out"))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    fs::path dir;
    std::string errors;
    std::string const good
        = "<node><interface name=\"org.example.A\"><property name=\"P\" type=\"s\" access=\"read\"/>"
          "</interface><interface name=\"org.example.B\"/></node>";
    std::string const bad = "<node>\n<interface name=\"org.example.C\">\n<property name=\"P\" type=\"s\" "
                            "access=\"sometimes\"/>\n</interface></node>";
};

TEST_F(CodegenProgram, WritesOneHeaderPerInterface)
{
    auto const input = write("good.xml", good);
    ASSERT_EQ(run("-o " + (dir / "out").string() + " " + input.string()), 0) << errors;
    EXPECT_EQ(outputs(), (std::vector<std::string>{"org.example.A.hpp", "org.example.B.hpp"}));
    EXPECT_THAT(
        read(dir / "out/org.example.A.hpp"), HasSubstr("class A : public tarvek::provider::Interface"));
    EXPECT_EQ(errors, "");
}

TEST_F(CodegenProgram, WritesEveryInterfaceIntoTheOneHeaderItIsGiven)
{
    auto const input = write("good.xml", good);
    ASSERT_EQ(run("--header " + (dir / "out/all.hpp").string() + " " + input.string()), 0) << errors;
    EXPECT_EQ(outputs(), std::vector<std::string>{"all.hpp"});
    auto const text = read(dir / "out/all.hpp");
    EXPECT_THAT(text, HasSubstr("class A "));
    EXPECT_THAT(text, HasSubstr("class B "));
}

TEST_F(CodegenProgram, FailsWithFileAndLineAndWritesNothing)
{
    auto const first = write("good.xml", good);
    auto const second = write("bad.xml", bad);
    EXPECT_EQ(run("-o " + (dir / "out").string() + " " + first.string() + " " + second.string()), 1);
    EXPECT_EQ(errors,
        second.string() + ":3: unknown access \"sometimes\" of property P (read, write or readwrite)\n");
    EXPECT_TRUE(outputs().empty());
}

TEST_F(CodegenProgram, LeavesAnExistingHeaderAsItWasWhenAnInputFails)
{
    std::ofstream(dir / "out/org.example.A.hpp") << "before";
    auto const first = write("good.xml", good);
    auto const second = write("unsupported.xml",
        "<interface name=\"org.example.D\">\n<property name=\"V\" type=\"v\" access=\"read\"/>"
        "</interface>");
    EXPECT_EQ(run("-o " + (dir / "out").string() + " " + first.string() + " " + second.string()), 1);
    EXPECT_THAT(errors, StartsWith(second.string() + ":2: unsupported type \"v\" of property V"));
    EXPECT_EQ(read(dir / "out/org.example.A.hpp"), "before");
    EXPECT_EQ(outputs(), std::vector<std::string>{"org.example.A.hpp"});
}

TEST_F(CodegenProgram, ChecksWithoutWriting)
{
    auto const input = write("good.xml", good);
    EXPECT_EQ(run("--check -o " + (dir / "out").string() + " " + input.string()), 0);
    EXPECT_TRUE(outputs().empty());
}

TEST_F(CodegenProgram, RefusesAFileWithoutInterfaces)
{
    auto const input = write("empty.xml", "<node/>");
    EXPECT_EQ(run("-o " + (dir / "out").string() + " " + input.string()), 1);
    EXPECT_EQ(errors, input.string() + ":1: no <interface> in this file\n");
}

TEST_F(CodegenProgram, NamesTheOutputThatCannotBeWritten)
{
    auto const input = write("good.xml", good);
    EXPECT_EQ(run("-o " + (dir / "missing").string() + " " + input.string()), 1);
    EXPECT_THAT(errors,
        StartsWith("tarvek-codegen: " + (dir / "missing/org.example.A.hpp").string()
            + ": cannot create a temporary file"));
    EXPECT_TRUE(outputs().empty());
}

TEST_F(CodegenProgram, RefusesAnUnknownOptionAndAMissingInput)
{
    EXPECT_EQ(run("--frobnicate x.xml"), 2);
    EXPECT_THAT(errors, StartsWith("tarvek-codegen: unknown option --frobnicate"));
    EXPECT_EQ(run(""), 2);
    EXPECT_THAT(errors, StartsWith("tarvek-codegen: no input files"));
}

} // namespace
