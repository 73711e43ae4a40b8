// The shared library exports what the public header declares, and nothing else.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

#include "pattern.h"

namespace {

std::set<std::string> declared_functions() {
    std::ifstream file(ORVEL_HEADER);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::set<std::string> names;
    for (const Match& match : all_matches(text, R"(\bOVL_API\s+[a-z][^;()]*?(\w+)\s*\()")) names.insert(match[1]);
    return names;
}

std::set<std::string> exported_symbols() {
    std::FILE* nm = popen("nm -D --defined-only '" ORVEL_SHARED_LIBRARY "'", "r");
    if (!nm) return {};
    std::string text;
    std::array<char, 4096> block{};
    while (const std::size_t got = std::fread(block.data(), 1, block.size(), nm)) text.append(block.data(), got);
    EXPECT_EQ(pclose(nm), 0);

    std::set<std::string> names;  // "address type name" a line
    std::istringstream lines(text);
    for (std::string address, type, name; lines >> address >> type >> name;) names.insert(name);
    return names;
}

TEST(SharedLibrary, ExportsExactlyTheFunctionsOfItsHeader) {
    const std::set<std::string> declared = declared_functions();
    EXPECT_TRUE(declared.contains("ovl_decode"));
    EXPECT_TRUE(declared.contains("ovl_create"));
    for (const std::string& name : declared) EXPECT_TRUE(name.starts_with("ovl_")) << name;
    EXPECT_EQ(exported_symbols(), declared);
}

TEST(SharedLibrary, EveryFunctionNamedInTheHeaderIsDeclaredForExport) {
    std::ifstream file(ORVEL_HEADER);
    const std::set<std::string> declared = declared_functions();
    for (std::string line; std::getline(file, line);) {
        EXPECT_FALSE(first_match(line, R"(^[a-z_][\w *]*?(ovl_\w+)\()")) << line << " lacks OVL_API";
    }
}

}  // namespace
