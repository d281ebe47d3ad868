# Installation. The version is defined in CMakeLists.txt only; the installed manuals take it from there.

option(KESTCROND_DEBIAN "Install the files of a Debian package, in the form that it requires" OFF)

function(install_compressed file directory)
    execute_process(COMMAND gzip -9nc ${file} OUTPUT_FILE ${file}.gz)
    install(FILES ${file}.gz DESTINATION ${directory})
endfunction()

install(TARGETS kestcrond RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
set(pages kestcrond.8 kestcron.job.5)
if(KESTCROND_BUILD_CTL)
    install(TARGETS kestcronctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    install(FILES packaging/kestcronctl.bash
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME kestcronctl)
    install(FILES packaging/kestcronctl.schema.json
            DESTINATION ${CMAKE_INSTALL_DATADIR}/kestcrond)
    install(DIRECTORY packaging/prometheus DESTINATION ${CMAKE_INSTALL_DATADIR}/kestcrond)
    list(APPEND pages kestcronctl.1)
endif()

foreach(page IN LISTS pages)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS man/${page})
    file(READ man/${page} text)
    string(REPLACE "\n.Os kestcrond\n" "\n.Os kestcrond ${PROJECT_VERSION}\n" text "${text}")
    file(WRITE ${PROJECT_BINARY_DIR}/man/${page} "${text}")
    string(REGEX MATCH "[0-9]$" section ${page})
    if(KESTCROND_DEBIAN)
        install_compressed(${PROJECT_BINARY_DIR}/man/${page} ${CMAKE_INSTALL_MANDIR}/man${section})
    else()
        install(FILES ${PROJECT_BINARY_DIR}/man/${page}
                DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
    endif()
endforeach()

install(FILES packaging/kestcron.job.schema.json DESTINATION ${CMAKE_INSTALL_DATADIR}/kestcrond)
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/kestcrond/examples
        USE_SOURCE_PERMISSIONS)
