# Small build helpers shared by the library's folders and the tests.

# orvanta_public_headers(<header>...)
# Marks headers of the current source folder as part of the installed API.
# They are installed flat into include/LibOrvanta/, so public headers include
# each other by bare file name.
function(orvanta_public_headers)
    foreach(header IN LISTS ARGN)
        set_property(GLOBAL APPEND PROPERTY ORVANTA_PUBLIC_HEADERS ${CMAKE_CURRENT_SOURCE_DIR}/${header})
    endforeach()
endfunction()

# orvanta_add_test(<name> LABEL <label> SOURCES <file>... [LIBRARIES <target>...]
#                  [FIXTURES <fixture>...] [ENVIRONMENT <VAR=value>...] [TIMEOUT <s>])
# Builds one QtTest program against the library's internal static build and
# registers it with CTest. FIXTURES names service fixtures (see
# orvanta_add_service_fixture); the test then runs with the environment that
# the fixtures' start scripts recorded, and fails when a service is missing.
function(orvanta_add_test name)
    cmake_parse_arguments(ARG "" "LABEL;TIMEOUT" "SOURCES;LIBRARIES;FIXTURES;ENVIRONMENT" ${ARGN})
    if(NOT ARG_LABEL)
        message(FATAL_ERROR "orvanta_add_test(${name}): every test needs a LABEL")
    endif()
    add_executable(${name} ${ARG_SOURCES})
    set_target_properties(${name} PROPERTIES AUTOMOC ON)
    target_link_libraries(${name} PRIVATE orvanta_internal orvanta_testsupport Qt5::Test ${ARG_LIBRARIES})
    orvanta_add_test_run(${name} PROGRAM ${name} LABEL ${ARG_LABEL} TIMEOUT "${ARG_TIMEOUT}"
        FIXTURES ${ARG_FIXTURES} ENVIRONMENT ${ARG_ENVIRONMENT})
endfunction()

# orvanta_add_test_run(<name> PROGRAM <target> LABEL <label> [FIXTURES <fixture>...]
#                      [ENVIRONMENT <VAR=value>...] [TIMEOUT <s>])
# Registers one more CTest run of a test program built by orvanta_add_test,
# for instance against another service fixture.
function(orvanta_add_test_run name)
    cmake_parse_arguments(ARG "" "PROGRAM;LABEL;TIMEOUT" "FIXTURES;ENVIRONMENT" ${ARGN})
    set(command $<TARGET_FILE:${ARG_PROGRAM}>)
    if(ARG_FIXTURES)
        set(env_files)
        foreach(fixture IN LISTS ARG_FIXTURES)
            list(APPEND env_files ${ORVANTA_SERVICE_DIR}/${fixture}.env)
        endforeach()
        set(command ${CMAKE_SOURCE_DIR}/scripts/services/with-env.sh ${env_files} -- ${command})
    endif()
    add_test(NAME ${name} COMMAND ${command})
    # Each test gets a home of its own in the build tree: nothing reaches the
    # real home directory, and tests running in parallel do not meet.
    set(home ${CMAKE_BINARY_DIR}/test-home/${name})
    file(MAKE_DIRECTORY ${home})
    set(env "HOME=${home}" "XDG_CONFIG_HOME=${home}/.config" "XDG_DATA_HOME=${home}/.local/share"
            "XDG_CACHE_HOME=${home}/.cache" "QT_QPA_PLATFORM=offscreen" "QT_FORCE_STDERR_LOGGING=1"
            ${ARG_ENVIRONMENT})
    set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABEL}" ENVIRONMENT "${env}")
    if(ARG_FIXTURES)
        set_tests_properties(${name} PROPERTIES FIXTURES_REQUIRED "${ARG_FIXTURES}")
    endif()
    if(ARG_TIMEOUT)
        set_tests_properties(${name} PROPERTIES TIMEOUT ${ARG_TIMEOUT})
    else()
        set_tests_properties(${name} PROPERTIES TIMEOUT 120)
    endif()
endfunction()

# orvanta_add_service_fixture(<fixture> START <script> STOP <script> LABELS <label>...)
# Registers a CTest fixture that starts a service (an X server, a sound
# server, an HTTP server) before the tests that require it and stops it after.
# The start script receives the directory ${ORVANTA_SERVICE_DIR} and the
# fixture name; it must write <dir>/<fixture>.env with the variables a client
# needs (shell syntax, one `export VAR=value` a line) and exit non-zero when the
# service cannot be started.
function(orvanta_add_service_fixture fixture)
    cmake_parse_arguments(ARG "" "START;STOP" "LABELS" ${ARGN})
    add_test(NAME ${fixture}_start COMMAND ${ARG_START} ${ORVANTA_SERVICE_DIR} ${fixture})
    add_test(NAME ${fixture}_stop COMMAND ${ARG_STOP} ${ORVANTA_SERVICE_DIR} ${fixture})
    set_tests_properties(${fixture}_start PROPERTIES FIXTURES_SETUP ${fixture} LABELS "${ARG_LABELS}" TIMEOUT 60)
    set_tests_properties(${fixture}_stop PROPERTIES FIXTURES_CLEANUP ${fixture} LABELS "${ARG_LABELS}" TIMEOUT 60)
endfunction()
