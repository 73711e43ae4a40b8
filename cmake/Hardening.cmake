# What makes a fault hard to use, in optimised builds: guarded stacks, checked calls of the C library, tables of
# addresses that cannot be written, and programs that load anywhere. Sanitizers, which bring checks of their own, and
# unoptimised builds do without. tests/install/check reads the outcome from the built files.
include(CheckPIESupported)
check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

if(NOT ORVEL_SANITIZE)
    set(optimised $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
    target_compile_options(orvel_options INTERFACE
        $<${optimised}:-fstack-protector-strong;-fstack-clash-protection;-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>)
    target_link_options(orvel_options INTERFACE $<${optimised}:LINKER:-z,relro,-z,now>)
endif()
