# What is installed, and the Debian packages. Components: module (the library, its typed stub, the console's package),
# engine (the development engine), development (for engines that load the module), documentation.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(_privateLibraries lib/sonetrix)

install(TARGETS sonetrix LIBRARY DESTINATION ${_privateLibraries} COMPONENT module)
# A package of stubs (PEP 561), which type checkers and editors find with the interpreter; in the build tree by a link.
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/${SONETRIX_PYTHON_PACKAGES}/sonetrix-stubs)
file(CREATE_LINK ${CMAKE_SOURCE_DIR}/interface/sonetrix/sonetrix.pyi
    ${CMAKE_BINARY_DIR}/${SONETRIX_PYTHON_PACKAGES}/sonetrix-stubs/__init__.pyi SYMBOLIC)
install(FILES interface/sonetrix/sonetrix.pyi DESTINATION ${SONETRIX_PYTHON_PACKAGES}/sonetrix-stubs RENAME __init__.pyi
    COMPONENT module)

if(TARGET sonetrix_engine)
    set_target_properties(sonetrix-engine PROPERTIES INSTALL_RPATH $ORIGIN/../${_privateLibraries})
    install(TARGETS sonetrix_engine LIBRARY DESTINATION ${_privateLibraries} COMPONENT engine)
    install(TARGETS sonetrix-engine RUNTIME DESTINATION bin COMPONENT engine)
endif()

# For engines: the header of the functions that they provide, with nothing to link, and the check of an engine.
set(_packageFolder ${CMAKE_INSTALL_DATADIR}/cmake/sonetrix-engine-api)
set(_moduleFile ${_privateLibraries}/sonetrix.so)
install(FILES include/sonetrix/engine_api.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/sonetrix COMPONENT development)
install(PROGRAMS tools/sonetrix-check-engine DESTINATION bin COMPONENT development)
install(TARGETS sonetrix_api EXPORT sonetrix-engine-api)
install(EXPORT sonetrix-engine-api FILE sonetrix-engine-apiTargets.cmake NAMESPACE sonetrix::
    DESTINATION ${_packageFolder} COMPONENT development)
configure_package_config_file(cmake/sonetrix-engine-apiConfig.cmake.in sonetrix-engine-apiConfig.cmake
    INSTALL_DESTINATION ${_packageFolder} PATH_VARS _moduleFile)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/sonetrix-engine-apiConfigVersion.cmake
    COMPATIBILITY SameMajorVersion ARCH_INDEPENDENT)
configure_file(cmake/sonetrix-engine-api.pc.in sonetrix-engine-api.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/sonetrix-engine-apiConfig.cmake
    ${CMAKE_BINARY_DIR}/sonetrix-engine-apiConfigVersion.cmake DESTINATION ${_packageFolder} COMPONENT development)
install(FILES ${CMAKE_BINARY_DIR}/sonetrix-engine-api.pc DESTINATION ${CMAKE_INSTALL_DATADIR}/pkgconfig
    COMPONENT development)

install(FILES README.md CONTRIBUTING.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation
    PATTERN __pycache__ EXCLUDE)

set(CPACK_GENERATOR DEB)
set(SONETRIX_MAINTAINER "SoneTrix developers <sonetrix@localhost>" CACHE STRING "Who stands behind the packages")
set(CPACK_PACKAGE_CONTACT ${SONETRIX_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL module development documentation)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION sound)

if(CMAKE_SYSTEM_PROCESSOR STREQUAL aarch64)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64)
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()

# Every package has the changelog and what there is to say about rights.
find_program(SONETRIX_GZIP gzip REQUIRED)
mark_as_advanced(SONETRIX_GZIP)
configure_file(cmake/debian/changelog changelog @ONLY)
execute_process(COMMAND ${SONETRIX_GZIP} -9nf changelog WORKING_DIRECTORY ${CMAKE_BINARY_DIR} COMMAND_ERROR_IS_FATAL ANY)

# Manual pages are made of what the programs say to --help, with help2man there.
find_program(SONETRIX_HELP2MAN help2man)
mark_as_advanced(SONETRIX_HELP2MAN)
set(_manuals "")
function(_manual component name summary)
    if(NOT SONETRIX_HELP2MAN)
        return()
    endif()
    list(JOIN ARGN " " command)
    list(GET ARGN -1 program)
    set(page ${CMAKE_BINARY_DIR}/manual/${name}.1)
    add_custom_command(OUTPUT ${page}.gz
        COMMAND ${SONETRIX_HELP2MAN} --no-info --version-string=${PROJECT_VERSION} --name=${summary} --output=${page} ${command}
        COMMAND ${SONETRIX_GZIP} -9nf ${page}
        DEPENDS ${program} VERBATIM)
    set(_manuals ${_manuals} ${page}.gz PARENT_SCOPE)
    install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component} OPTIONAL)
endfunction()
_manual(development sonetrix-check-engine "checks an engine against the SoneTrix scripting layer's contract"
    ${CMAKE_SOURCE_DIR}/tools/sonetrix-check-engine)
_manual(module sonetrix-ctl "works in a SoneTrix engine that is running"
    ${CMAKE_BINARY_DIR}/bin/sonetrix-ctl)
if(TARGET sonetrix_engine)
    _manual(engine sonetrix-engine "the SoneTrix development engine and its Python console"
        ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:sonetrix-engine>)
endif()
add_custom_target(manuals ALL DEPENDS ${_manuals})

# _package(COMPONENT NAME SUMMARY DESCRIPTION)
macro(_package component name summary description)
    string(TOUPPER ${component} upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
    set(CPACK_COMPONENT_${upper}_DESCRIPTION "${summary}\n${description}")
    install(FILES cmake/debian/copyright ${CMAKE_BINARY_DIR}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
endmacro()
_package(module sonetrix "Python scripting layer of the SoneTrix audio engine"
    "The module sonetrix and the engine's Python console,\nin one library that an engine loads.")
_package(development sonetrix-dev "SoneTrix scripting layer, interface for engines"
    "The C header of the functions that an engine provides to the scripting layer,\nfor CMake and pkg-config, and sonetrix-check-engine, which tries an engine.")
_package(documentation sonetrix-doc "SoneTrix scripting layer, documentation"
    "How it is used and built, and example scripts.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# The module to load, and what sonetrix-check-engine runs.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "sonetrix (= ${PROJECT_VERSION}), python3, binutils")
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DOCUMENTATION_PACKAGE_SECTION doc)

set(SONETRIX_DEBIAN_BINARIES_MODULE $<TARGET_FILE:sonetrix>)
if(TARGET sonetrix_engine)
    list(APPEND CPACK_COMPONENTS_ALL engine)
    _package(engine sonetrix-engine "SoneTrix development engine"
        "A small engine of LADSPA plugins, to run the scripting layer anywhere.")
    set(CPACK_DEBIAN_ENGINE_PACKAGE_RECOMMENDS "swh-plugins, cmt")
    set(SONETRIX_DEBIAN_BINARIES_ENGINE "$<TARGET_FILE:sonetrix_engine>;$<TARGET_FILE:sonetrix-engine>")
endif()

# Which packages the binaries need is known once they are there: found out when cpack runs.
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_BINARY_DIR}/debian_dependencies.cmake)
configure_file(cmake/debian_dependencies.cmake.in debian_dependencies.in.cmake @ONLY)
file(GENERATE OUTPUT ${CPACK_PROJECT_CONFIG_FILE} INPUT ${CMAKE_BINARY_DIR}/debian_dependencies.in.cmake)
include(CPack)
