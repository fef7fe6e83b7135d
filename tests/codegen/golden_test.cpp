// SPDX-License-Identifier: LGPL-2.1-or-later
// The emitter's text for one small interface, compared whole with a header kept beside
// it. When the emitter changes on purpose, write the new text with
//   tarvek-codegen --stubs --header tests/codegen/golden/lamp.hpp tests/codegen/golden/lamp.xml
// and read the difference before committing it.
#include "checks.hpp"
#include "emitter.hpp"
#include "mapping.hpp"
#include "xml_reader.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace tarvek::codegen {
namespace {

std::string read_file(std::string const& path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(Emitter, WritesTheHeaderKeptAsGolden)
{
    std::string const folder = TARVEK_CODEGEN_TEST_DATA "/golden/";
    auto const document = read_xml_file(folder + "lamp.xml");
    check_document(document);
    Options options;
    options.stubs = true;
    auto const text = emit_header({map_interface(document.interfaces.at(0), options)}, "lamp.xml", options);
    EXPECT_EQ(text, read_file(folder + "lamp.hpp"));
}

} // namespace
} // namespace tarvek::codegen
