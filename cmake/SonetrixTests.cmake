# How tests are registered.

set(SONETRIX_TEST_TIMEOUT 120)
set(_testEnvironment
    SONETRIX_BUILD=${CMAKE_BINARY_DIR}
    SONETRIX_SOURCE=${CMAKE_SOURCE_DIR}
    SONETRIX_SANITIZE=${SONETRIX_SANITIZE}
    PYTHONDONTWRITEBYTECODE=1
    XDG_STATE_HOME=${CMAKE_BINARY_DIR}/tests/state # for the console's history
    PYTHONPATH=${CMAKE_SOURCE_DIR}/tests:${CMAKE_BINARY_DIR}/lib)
if(SONETRIX_SANITIZE MATCHES address)
    # Not intercepted, because with a block of thread-local variables 16 bytes past the start of a page the leak checker
    # takes what is ahead of it for glibc 2.19's header, and crashes. It finds the blocks without.
    list(APPEND _testEnvironment
        ASAN_OPTIONS=detect_leaks=1:intercept_tls_get_addr=0
        LSAN_OPTIONS=suppressions=${CMAKE_SOURCE_DIR}/tests/lsan.supp:print_suppressions=0
        UBSAN_OPTIONS=print_stacktrace=1)
    set(_preloadedLibrary libasan.so)
    math(EXPR SONETRIX_TEST_TIMEOUT "${SONETRIX_TEST_TIMEOUT} * 3")
elseif(SONETRIX_SANITIZE MATCHES thread)
    list(APPEND _testEnvironment
        TSAN_OPTIONS=suppressions=${CMAKE_SOURCE_DIR}/tests/tsan.supp:ignore_noninstrumented_modules=1)
    set(_preloadedLibrary libtsan.so)
    math(EXPR SONETRIX_TEST_TIMEOUT "${SONETRIX_TEST_TIMEOUT} * 4")
endif()
if(_preloadedLibrary)
    # The interpreter is not built with the sanitizer that our library needs: it has to come in first, and with it the
    # C++ library, whose throwing function the sanitizer looks up when it starts.
    foreach(library ${_preloadedLibrary} libstdc++.so.6)
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${library}
            OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
        list(APPEND _preloaded ${path})
    endforeach()
    list(JOIN _preloaded " " _preloaded)
    list(APPEND _testEnvironment "LD_PRELOAD=${_preloaded}")
    if(SONETRIX_SANITIZE MATCHES address)
        list(APPEND _testEnvironment PYTHONMALLOC=malloc)
    endif()
endif()

if(CMAKE_CROSSCOMPILING)
    # Programs that the tests start go through scripts, so that no test has to know about the emulator.
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR "' '" emulator)
    foreach(program "" bin/sonetrix-engine tests/console_host ${SONETRIX_PYTHON_EXECUTABLE})
        set(name run)
        set(quoted "")
        if(program)
            cmake_path(ABSOLUTE_PATH program BASE_DIRECTORY ${CMAKE_BINARY_DIR})
            cmake_path(GET program FILENAME name)
            string(REGEX REPLACE "^python3.*" "python3" name ${name})
            set(quoted "'${program}' ")
        endif()
        file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/launchers/${name} @ONLY
            CONTENT "#!/bin/sh\nexec '@emulator@' @quoted@\"$@\"\n")
        file(CHMOD ${CMAKE_BINARY_DIR}/launchers/${name}
            PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    endforeach()
    list(APPEND _testEnvironment SONETRIX_LAUNCHERS=${CMAKE_BINARY_DIR}/launchers)
    math(EXPR SONETRIX_TEST_TIMEOUT "${SONETRIX_TEST_TIMEOUT} * 10")
endif()
if(SONETRIX_PYTHON_LIBRARY MATCHES "d\\.so")
    # A debug build of the interpreter keeps count: its own test runner repeats each file and compares.
    set(_countReferences -m test -R 3:3 --testdir)
    math(EXPR SONETRIX_TEST_TIMEOUT "${SONETRIX_TEST_TIMEOUT} * 10")
endif()

# The interpreter in the environment of the tests, for ctest and for tests/run.
set(_python ${CMAKE_BINARY_DIR}/tests/python)
set(words ${_testEnvironment} ${CMAKE_CROSSCOMPILING_EMULATOR} ${SONETRIX_PYTHON_EXECUTABLE} -X faulthandler)
list(JOIN words "' '" words)
file(CONFIGURE OUTPUT ${_python} CONTENT "#!/bin/sh\nexec env '@words@' \"$@\"\n" @ONLY)
file(CHMOD ${_python}
    PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# sonetrix_python_test(FILE): runs it with unittest. Lines "# ctest: ..." in the file's head set properties:
# timeout=SECONDS (of a build without sanitizers), processors=NUMBER, serial, labels=A,B.
function(sonetrix_python_test file)
    cmake_path(GET file STEM name)
    cmake_path(GET file PARENT_PATH directory)
    cmake_path(GET directory FILENAME folder)
    set(labels ${folder})
    set(timeout ${SONETRIX_TEST_TIMEOUT})
    set(runSerial OFF)
    set(processors 1)
    file(STRINGS ${file} directives REGEX "^# ctest:")
    string(REGEX REPLACE "# ctest:" "" directives "${directives}")
    separate_arguments(directives UNIX_COMMAND "${directives}")
    foreach(directive IN LISTS directives)
        if(directive MATCHES "^timeout=([0-9]+)$")
            math(EXPR timeout "${CMAKE_MATCH_1} * ${SONETRIX_TEST_TIMEOUT} / 120")
        elseif(directive MATCHES "^labels=(.*)$")
            string(REPLACE "," ";" extra "${CMAKE_MATCH_1}")
            list(APPEND labels ${extra})
        elseif(directive MATCHES "^processors=([0-9]+)$")
            set(processors ${CMAKE_MATCH_1})
        elseif(directive STREQUAL "serial")
            set(runSerial ON)
        else()
            message(FATAL_ERROR "${file}: unknown directive '${directive}'")
        endif()
    endforeach()
    set(command -m unittest ${file})
    if(_countReferences)
        set(command ${_countReferences} ${directory} ${name})
    endif()
    string(REGEX REPLACE "^test_" "" name ${name})
    add_test(NAME ${folder}.${name}
        COMMAND ${_python} ${command}
        WORKING_DIRECTORY ${CMAKE_SOURCE_DIR})
    set_tests_properties(${folder}.${name} PROPERTIES
        TIMEOUT ${timeout} RUN_SERIAL ${runSerial} PROCESSORS ${processors} LABELS "${labels}")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
endfunction()
