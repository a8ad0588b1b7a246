# Options that every target of the project is built with.
add_library(kesta_build_options INTERFACE)
target_compile_options(kesta_build_options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    $<$<BOOL:${KESTA_WERROR}>:-Werror>)
# What is shipped is hardened; sanitizers bring their own checks, and see less through these.
if(NOT KESTA_SANITIZE)
    include(CheckPIESupported)
    check_pie_supported()
    set(CMAKE_POSITION_INDEPENDENT_CODE ON)
    target_compile_options(kesta_build_options INTERFACE
        -fstack-protector-strong -fstack-clash-protection
        # _FORTIFY_SOURCE does nothing, and warns, without optimisation.
        $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
        target_compile_options(kesta_build_options INTERFACE -fcf-protection=full)
    endif()
    target_link_options(kesta_build_options INTERFACE
        -Wl,-z,relro,-z,now,-z,noexecstack,-z,separate-code)
endif()
if(KESTA_SANITIZE)
    target_compile_options(kesta_build_options INTERFACE
        -fsanitize=${KESTA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(kesta_build_options INTERFACE -fsanitize=${KESTA_SANITIZE})
endif()
