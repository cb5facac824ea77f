# What tests of the Lua modules share.

set(TEST_SUPPORT_DIR ${CMAKE_CURRENT_LIST_DIR})

# The plugin keeps one object for the life of the process on purpose. The runtime would guess
# the bounds of a library's thread-local data from its address alone, and now and then
# crash on them.
set(SANITIZER_ENVIRONMENT
    "LSAN_OPTIONS=suppressions=${TEST_SUPPORT_DIR}/lsan.supp:print_suppressions=0:intercept_tls_get_addr=0"
    "TSAN_OPTIONS=halt_on_error=1:suppressions=${TEST_SUPPORT_DIR}/tsan.supp")
# The same for gtest_discover_tests, which passes on one value for a property.
list(GET SANITIZER_ENVIRONMENT 0 lsan_options)
set(SANITIZER_PROPERTIES ENVIRONMENT ${lsan_options}
    ENVIRONMENT_MODIFICATION "TSAN_OPTIONS=set:halt_on_error=1")

# add_lua_test(NAME SCRIPT [RECORDER] [PRELOAD LIBRARY...] [ENVIRONMENT VARIABLE=VALUE...]): the
# script under stock lua5.2, on the built libraries and a fake machine; RECORDER: with the recording
# driver in the place of libvxi.
function(add_lua_test name script)
    cmake_parse_arguments(PARSE_ARGV 2 arg "RECORDER" "" "PRELOAD;ENVIRONMENT")
    set(preload ${SANITIZER_PRELOAD} $<TARGET_FILE:fixed_paths> ${arg_PRELOAD})
    if(arg_RECORDER)
        list(APPEND preload $<TARGET_FILE:recorder>)
    endif()
    list(JOIN preload ":" preload)
    # The preloads are for interpreters, not for what starts them.
    add_test(NAME ${name} COMMAND fake_machine ${CMAKE_COMMAND} -E env
        ${SANITIZER_ENVIRONMENT} LC_ALL=C ${arg_ENVIRONMENT}
        "LUA_CPATH=${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/?.so;$<TARGET_FILE_DIR:recorder>/?.so"
        "LUA_PATH=${PROJECT_SOURCE_DIR}/lua/?.lua;${TEST_SUPPORT_DIR}/?.lua;;"
        "VXA_ROOT=${PROJECT_SOURCE_DIR}" "VXA_LIB=${CMAKE_LIBRARY_OUTPUT_DIRECTORY}"
        "LD_PRELOAD=${preload}"
        ${LUA} ${CMAKE_CURRENT_SOURCE_DIR}/${script})
    set_tests_properties(${name} PROPERTIES TIMEOUT 300)
endfunction()

# discover_plugin_tests(TARGET [OPTION...]): its GoogleTest cases, with the environment they need.
function(discover_plugin_tests target)
    gtest_discover_tests(${target} ${ARGN} DISCOVERY_MODE PRE_TEST
        PROPERTIES ${SANITIZER_PROPERTIES} TIMEOUT 120)
endfunction()

# add_lua_host(TARGET BUILD): the target has Lua states of its own, of Lua built as "c" or
# as "cxx", which load the built modules. Its functions come before those of the libraries.
function(add_lua_host target build)
    target_sources(${target} PRIVATE ${TEST_SUPPORT_DIR}/LuaHost.cpp)
    target_include_directories(${target} PRIVATE ${TEST_SUPPORT_DIR})
    target_compile_definitions(${target} PRIVATE LIBRARY_DIR="${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")
    target_link_libraries(${target} PRIVATE PkgConfig::lua_${build} GTest::gtest_main)
    set_target_properties(${target} PROPERTIES ENABLE_EXPORTS ON)
    add_dependencies(${target} fc vxa)
endfunction()
