// The shared library exports what the public header declares, and nothing else.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace {

std::set<std::string> declared_functions() {
    std::ifstream file(ORVEL_HEADER);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    static const std::regex declaration(R"(\bOVL_API\s+[a-z][^;()]*?(\w+)\s*\()");
    std::set<std::string> names;
    for (std::sregex_iterator match(text.begin(), text.end(), declaration), end; match != end; ++match) {
        names.insert((*match)[1]);
    }
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
    static const std::regex prototype(R"(^[a-z_][\w *]*?(ovl_\w+)\()");  // one without OVL_API in front
    std::smatch match;
    for (std::string line; std::getline(file, line);) {
        if (std::regex_search(line, match, prototype)) ADD_FAILURE() << match[1] << " lacks OVL_API";
    }
}

}  // namespace
