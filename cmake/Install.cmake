# What "cmake --install" puts where, and what lets other projects find it.
include(CMakePackageConfigHelpers)

set(KESTA_PLATFORM_LIBRARIES mc_logapi sanfwctl sbacc vrbapi)

install(TARGETS kesta kesta_static ${KESTA_PLATFORM_LIBRARIES}
    EXPORT kesta-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS cpinfo RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(KESTA_BUILD_LAB)
    install(TARGETS kesta-lab RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    install(FILES docs/man/kesta-lab.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()
if(KESTA_BUILD_TOOLS)
    install(TARGETS kestactl kesta-platform kesta-platform-check RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    install(FILES docs/man/kestactl.1 docs/man/kesta-platform.1 docs/man/kesta-platform-check.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
    # What shells complete, made by the program itself.
    install(CODE "
        foreach(shell bash zsh)
            execute_process(COMMAND \"${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/kestactl\" completion \${shell}
                OUTPUT_FILE \"${PROJECT_BINARY_DIR}/kestactl.\${shell}\" COMMAND_ERROR_IS_FATAL ANY)
        endforeach()")
    install(FILES ${PROJECT_BINARY_DIR}/kestactl.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME kestactl)
    # zsh looks for what packages bring in another folder than for what the machine's owner installs.
    install(CODE "
        set(zsh_folder \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/zsh/site-functions\")
        if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
            set(zsh_folder /usr/share/zsh/vendor-completions)
        endif()
        file(INSTALL DESTINATION \"\${zsh_folder}\" TYPE FILE RENAME _kestactl
            FILES \"${PROJECT_BINARY_DIR}/kestactl.zsh\")")
endif()
# Programs that the library's command lines call, and nobody by hand.
set(KESTA_PROGRAMDIR ${CMAKE_INSTALL_LIBEXECDIR}/kesta)
install(TARGETS eeprom env_vpdctl RUNTIME DESTINATION ${KESTA_PROGRAMDIR})
install(PROGRAMS
    platform/support/env_tarz_assign_distribute.sh platform/support/env_tarz_assign_collect.sh
    DESTINATION ${KESTA_PROGRAMDIR})
install(DIRECTORY include/kesta DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES
    platform/contract/mc_logapi.h platform/contract/platform_notice.h platform/contract/sanfwctl.h platform/contract/sbacc.h platform/contract/vrbapi.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kesta/platform)
install(FILES share/status DESTINATION ${CMAKE_INSTALL_DATADIR}/kesta/platform)
install(FILES share/define.rng DESTINATION ${CMAKE_INSTALL_DATADIR}/kesta)
install(DIRECTORY share/example DESTINATION ${CMAKE_INSTALL_DATADIR}/kesta USE_SOURCE_PERMISSIONS)
install(FILES share/tmpfiles.d/kesta.conf share/tmpfiles.d/kesta-platform-embedded.conf
    DESTINATION lib/tmpfiles.d)
# Off unless somebody enables the timer.
install(FILES share/systemd/kesta-verify.service share/systemd/kesta-verify.timer
    DESTINATION lib/systemd/system)
install(FILES docs/platform.conf DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES docs/man/cpinfo.1 docs/man/eeprom.1 docs/man/env_vpdctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

install(FILES docs/man/libkesta.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
# Each exported function leads to it by its name.
file(STRINGS common/libkesta.map KESTA_EXPORTED REGEX "^ +(kestal?_|g_)[A-Za-z0-9_]+;")
foreach(line ${KESTA_EXPORTED})
    string(REGEX MATCH "[A-Za-z0-9_]+" name "${line}")
    file(WRITE ${PROJECT_BINARY_DIR}/man3/${name}.3 ".so man3/libkesta.3\n")
endforeach()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS common/libkesta.map)
install(DIRECTORY ${PROJECT_BINARY_DIR}/man3 DESTINATION ${CMAKE_INSTALL_MANDIR} FILES_MATCHING PATTERN "*.3")

# The command lines name these paths; the system lacks them.
install(CODE "
    set(sbin \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}\")
    file(MAKE_DIRECTORY \"\${sbin}\")
    file(CREATE_LINK \"../${CMAKE_INSTALL_BINDIR}/cpinfo\" \"\${sbin}/cpinfo\" SYMBOLIC)
    file(CREATE_LINK \"../${KESTA_PROGRAMDIR}/eeprom\" \"\${sbin}/eeprom\" SYMBOLIC)
    if(NOT EXISTS \"\${sbin}/tar\")
        file(CREATE_LINK /usr/bin/tar \"\${sbin}/tar\" SYMBOLIC)
    endif()
    if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
        set(product \"\$ENV{DESTDIR}/opt/kesta_sys/sbin\")
        file(MAKE_DIRECTORY \"\${product}\")
        foreach(program env_vpdctl env_tarz_assign_distribute.sh env_tarz_assign_collect.sh)
            file(CREATE_LINK \"/usr/${KESTA_PROGRAMDIR}/\${program}\" \"\${product}/\${program}\" SYMBOLIC)
        endforeach()
    endif()")

install(EXPORT kesta-targets NAMESPACE kesta:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kesta)
configure_package_config_file(cmake/kesta-config.cmake.in ${PROJECT_BINARY_DIR}/kesta-config.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kesta)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kesta-config-version.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kesta-config.cmake
    ${PROJECT_BINARY_DIR}/kesta-config-version.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kesta)

# The .pc file finds its tree from where it lies, so that a tree can be moved.
file(RELATIVE_PATH KESTA_PC_PREFIX
    "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" KESTA_PC_PREFIX "${KESTA_PC_PREFIX}")
configure_file(cmake/libkesta.pc.in ${PROJECT_BINARY_DIR}/libkesta.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libkesta.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
