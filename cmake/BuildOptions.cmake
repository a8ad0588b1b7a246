# Options that every target of the project is built with.
add_library(kesta_build_options INTERFACE)
target_compile_options(kesta_build_options INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wshadow
    $<$<BOOL:${KESTA_WERROR}>:-Werror>)
if(KESTA_SANITIZE)
    target_compile_options(kesta_build_options INTERFACE
        -fsanitize=${KESTA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(kesta_build_options INTERFACE -fsanitize=${KESTA_SANITIZE})
endif()
