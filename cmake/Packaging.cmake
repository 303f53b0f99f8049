# What is installed, and the Debian packages. Components: module (the library and its typed stub), engine (the
# development engine), development (for engines that load the module), documentation.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(_privateLibraries lib/sonetrix)

install(TARGETS sonetrix LIBRARY DESTINATION ${_privateLibraries} COMPONENT module)
install(FILES interface/sonetrix/sonetrix.pyi DESTINATION ${_privateLibraries} COMPONENT module)

if(TARGET sonetrix_engine)
    set_target_properties(sonetrix-engine PROPERTIES INSTALL_RPATH $ORIGIN/../${_privateLibraries})
    install(TARGETS sonetrix_engine LIBRARY DESTINATION ${_privateLibraries} COMPONENT engine)
    install(TARGETS sonetrix-engine RUNTIME DESTINATION bin COMPONENT engine)
endif()

# The interface that an engine provides to the module: a header, with nothing to link.
set(_packageFolder ${CMAKE_INSTALL_DATADIR}/cmake/sonetrix-engine-api)
install(FILES include/sonetrix/engine_api.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/sonetrix COMPONENT development)
install(TARGETS sonetrix_api EXPORT sonetrix-engine-api)
install(EXPORT sonetrix-engine-api FILE sonetrix-engine-apiConfig.cmake NAMESPACE sonetrix::
    DESTINATION ${_packageFolder} COMPONENT development)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/sonetrix-engine-apiConfigVersion.cmake
    COMPATIBILITY SameMajorVersion ARCH_INDEPENDENT)
configure_file(cmake/sonetrix-engine-api.pc.in sonetrix-engine-api.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/sonetrix-engine-apiConfigVersion.cmake DESTINATION ${_packageFolder}
    COMPONENT development)
install(FILES ${CMAKE_BINARY_DIR}/sonetrix-engine-api.pc DESTINATION ${CMAKE_INSTALL_DATADIR}/pkgconfig
    COMPONENT development)

install(FILES README.md CONTRIBUTING.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation)
install(DIRECTORY docs examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT documentation
    PATTERN __pycache__ EXCLUDE)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "SoneTrix developers")
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

# _package(COMPONENT NAME SUMMARY DESCRIPTION)
macro(_package component name summary description)
    string(TOUPPER ${component} upper)
    set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name})
    set(CPACK_COMPONENT_${upper}_DESCRIPTION "${summary}\n${description}")
endmacro()
_package(module sonetrix "Python scripting layer of the SoneTrix audio engine"
    "The module sonetrix and the engine's Python console,\nin one library that an engine loads.")
_package(development sonetrix-dev "SoneTrix scripting layer, interface for engines"
    "The C header of the functions that an engine provides to the scripting layer.")
_package(documentation sonetrix-doc "SoneTrix scripting layer, documentation"
    "How it is used and built, and example scripts.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
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
