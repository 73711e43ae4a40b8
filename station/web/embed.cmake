# cmake -DOUTPUT=FILE -DSOURCES=FILE;... -P embed.cmake: the files of the page as a C++ source, each as it is and, where
# gzip is there, compressed.
set(types html text/html css text/css js text/javascript json application/json svg image/svg+xml)
find_program(GZIP gzip)

function(bytes_of file result)
    file(READ ${file} hex HEX)
    string(REGEX REPLACE "(................................................................)" "\\1\n" hex "${hex}")
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," hex "${hex}")
    set(${result} "${hex}" PARENT_SCOPE)
endfunction()

set(arrays "")
set(table "")
set(number 0)
foreach(source IN LISTS SOURCES)
    get_filename_component(name ${source} NAME)
    string(REGEX REPLACE ".*\\." "" extension ${name})
    list(FIND types ${extension} at)
    math(EXPR at "${at} + 1")
    list(GET types ${at} type)
    string(REGEX REPLACE "^(text/.*)" "\\1; charset=utf-8" type ${type})
    file(SHA256 ${source} sum)
    string(SUBSTRING ${sum} 0 16 sum)
    bytes_of(${source} plain)
    string(APPEND arrays "constexpr unsigned char PLAIN_${number}[] = {\n${plain}};\n")
    set(zipped "{}")
    if(GZIP)
        execute_process(COMMAND ${GZIP} -9 -n -c ${source} OUTPUT_FILE ${OUTPUT}.gz COMMAND_ERROR_IS_FATAL ANY)
        bytes_of(${OUTPUT}.gz bytes)
        file(REMOVE ${OUTPUT}.gz)
        string(APPEND arrays "constexpr unsigned char ZIPPED_${number}[] = {\n${bytes}};\n")
        set(zipped "text_of(ZIPPED_${number})")
    endif()
    string(APPEND table "    Asset{\"/${name}\", \"${type}\", \"\\\"${sum}\\\"\", text_of(PLAIN_${number}), ${zipped}},\n")
    math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUTPUT} "// Made by embed.cmake.
#include \"web/assets.h\"

#include <array>

namespace {

${arrays}
template <std::size_t SIZE>
std::string_view text_of(const unsigned char (&bytes)[SIZE]) {
    return {reinterpret_cast<const char*>(bytes), SIZE};
}

}  // namespace

std::span<const Asset> assets() {
    static const std::array ASSETS = {
${table}    };
    return ASSETS;
}
")
