# Settings that hold for every target: standard, warnings, sanitizers, where results go.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

set(SONETRIX_PYTHON_PACKAGES lib/python3/dist-packages) # where Debian's interpreters look, whatever their version

set(CMAKE_C_FLAGS_RELEASE "-O2 -DNDEBUG")
set(CMAKE_CXX_FLAGS_RELEASE "-O2 -DNDEBUG")

# A newer compiler's new warning breaks nobody's build: CMAKE_COMPILE_WARNING_AS_ERROR makes them errors, see the presets.
add_compile_options(-Wall -Wextra -Wconversion -Wshadow -fno-plt)
# Log lines name files from the root of the sources, wherever that was.
add_compile_options(-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=)
add_link_options(-Wl,--as-needed)

if(SONETRIX_SANITIZE)
    add_compile_options(-fsanitize=${SONETRIX_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${SONETRIX_SANITIZE})
else()
    # Modules get their engine symbols from the process that loads them; a shared library must be complete.
    string(APPEND CMAKE_SHARED_LINKER_FLAGS " -Wl,-z,defs")
endif()

# Installed, the module finds a libpython that is not where the loader looks anyway.
set(CMAKE_INSTALL_RPATH_USE_LINK_PATH ON)

# All build folders share the compiler's results, where there is a cache for them.
find_program(SONETRIX_CCACHE ccache)
mark_as_advanced(SONETRIX_CCACHE)
foreach(language IN ITEMS C CXX)
    if(SONETRIX_CCACHE AND NOT CMAKE_${language}_COMPILER_LAUNCHER)
        set(CMAKE_${language}_COMPILER_LAUNCHER ${SONETRIX_CCACHE})
    endif()
endforeach()

find_package(Threads REQUIRED)
