# What makes a fault hard to exploit, in optimised builds: stack protection, checked calls of the C library, read-only
# relocations, and position-independent programs. Sanitizers, which have their own checks, and unoptimised builds do
# without. tests/install/check and tests/windows/check verify the outcome in the built files.
include(CheckPIESupported)
check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

if(NOT ORVEL_SANITIZE)
    set(optimised $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
    if(WIN32)
        # Addresses anywhere in 64 bits, and data that is never run. Each page of a large frame is touched anyway.
        target_compile_options(orvel_options INTERFACE
            $<${optimised}:-fstack-protector-strong;-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>)
        target_link_options(orvel_options INTERFACE -fstack-protector-strong
                            LINKER:--dynamicbase,--high-entropy-va,--nxcompat)
    else()
        target_compile_options(orvel_options INTERFACE
            $<${optimised}:-fstack-protector-strong;-fstack-clash-protection;-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>)
        target_link_options(orvel_options INTERFACE $<${optimised}:LINKER:-z,relro,-z,now>)
    endif()
endif()
