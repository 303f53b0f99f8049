# Finds the CPython that the scripting layer embeds, with headers and shared library.
#
# 3.12 is the reference: one on the machine is always taken, the distribution's before one under pyenv. Otherwise any
# other suitable version serves, the newest first. SONETRIX_PYTHON_ROOT confines the search to that prefix, or is itself
# the interpreter to take: so also a debug build. For another
# architecture only the target's tree is searched, and its interpreters answer in the emulator.
#
# Defines the target EnginePython::EnginePython, SONETRIX_PYTHON_EXECUTABLE (the same installation's interpreter),
# SONETRIX_PYTHON_LIBRARY and SONETRIX_PYTHON_VERSION.

set(_referenceVersion 3.12)

# Interpreters to consider, in order of preference.
function(_engine_python_candidates result)
    if(SONETRIX_PYTHON_ROOT AND NOT IS_DIRECTORY ${SONETRIX_PYTHON_ROOT})
        set(${result} ${SONETRIX_PYTHON_ROOT} PARENT_SCOPE)
        return()
    elseif(SONETRIX_PYTHON_ROOT)
        set(directories ${SONETRIX_PYTHON_ROOT}/bin)
    elseif(CMAKE_CROSSCOMPILING)
        set(directories ${CMAKE_SYSROOT}/usr/bin ${CMAKE_SYSROOT}/usr/local/bin)
    else()
        set(pyenvRoot $ENV{PYENV_ROOT})
        if(NOT pyenvRoot)
            set(pyenvRoot $ENV{HOME}/.pyenv)
        endif()
        file(GLOB pyenvVersions ${pyenvRoot}/versions/3.*/bin)
        list(SORT pyenvVersions COMPARE NATURAL ORDER DESCENDING)
        set(directories /usr/bin /usr/local/bin ${pyenvVersions})
    endif()

    set(reference "")
    set(others "")
    foreach(directory IN LISTS directories)
        file(GLOB interpreters ${directory}/python3.*)
        foreach(interpreter IN LISTS interpreters)
            if(interpreter MATCHES "/python(3\\.[0-9]+)$")
                if(CMAKE_MATCH_1 VERSION_EQUAL _referenceVersion)
                    list(APPEND reference ${interpreter})
                elseif(CMAKE_MATCH_1 VERSION_GREATER_EQUAL 3.11)
                    list(APPEND others ${CMAKE_MATCH_1}=${interpreter})
                endif()
            endif()
        endforeach()
    endforeach()
    list(SORT others COMPARE NATURAL ORDER DESCENDING)
    list(TRANSFORM others REPLACE "^[^=]*=" "")
    set(${result} ${reference} ${others} PARENT_SCOPE)
endfunction()

# Of several suitable installations, with the reference version or without, the first in order is taken.
function(_engine_python_find)
    _engine_python_candidates(candidates)
    set(rejected "")
    foreach(candidate IN LISTS candidates)
        execute_process(COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} ${candidate} ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/probe_python.py
            OUTPUT_VARIABLE answer OUTPUT_STRIP_TRAILING_WHITESPACE
            ERROR_VARIABLE reason ERROR_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE status)
        if(status EQUAL 0)
            list(GET answer 0 version)
            if(SONETRIX_PYTHON_ROOT)
                set(why "SONETRIX_PYTHON_ROOT")
            elseif(version MATCHES "^3\\.12\\.")
                set(why "the reference version")
            else()
                set(why "no ${_referenceVersion} with a shared library found")
            endif()
            set(_found ${answer} PARENT_SCOPE)
            set(_why ${why} PARENT_SCOPE)
            return()
        endif()
        string(APPEND rejected "\n  ${candidate}: ${reason}")
    endforeach()
    set(_found "" PARENT_SCOPE)
    set(_why "${rejected}" PARENT_SCOPE)
endfunction()

_engine_python_find()
if(NOT _found)
    if(SONETRIX_PYTHON_ROOT)
        set(_where " under SONETRIX_PYTHON_ROOT (${SONETRIX_PYTHON_ROOT})")
    endif()
    message(FATAL_ERROR "No CPython 3.11 or newer with headers and shared library${_where}. Install python3-dev, or "
        "give the prefix of one with -DSONETRIX_PYTHON_ROOT=<prefix>.${_why}")
endif()

list(GET _found 0 SONETRIX_PYTHON_VERSION)
list(GET _found 1 SONETRIX_PYTHON_EXECUTABLE)
list(GET _found 2 _include)
list(GET _found 3 SONETRIX_PYTHON_LIBRARY)
set(EnginePython_FOUND TRUE)
message(STATUS "Python ${SONETRIX_PYTHON_VERSION} (${_why}): ${SONETRIX_PYTHON_EXECUTABLE}, ${SONETRIX_PYTHON_LIBRARY}")

if(NOT TARGET EnginePython::EnginePython)
    add_library(EnginePython::EnginePython SHARED IMPORTED)
    set_target_properties(EnginePython::EnginePython PROPERTIES
        IMPORTED_LOCATION ${SONETRIX_PYTHON_LIBRARY} INTERFACE_INCLUDE_DIRECTORIES ${_include})
    if(SONETRIX_PYTHON_LIBRARY MATCHES "d\\.so")
        # The headers of the distribution's debug build are links to those of the other one, apart from pyconfig.h, which
        # is found only by a compiler that does not follow the links first.
        target_compile_options(EnginePython::EnginePython INTERFACE
            $<$<COMPILE_LANG_AND_ID:C,GNU>:-fno-canonical-system-headers>
            $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-fno-canonical-system-headers>)
    endif()
endif()
