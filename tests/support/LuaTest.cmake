# What tests of the plugin share.

set(TEST_SUPPORT_DIR ${CMAKE_CURRENT_LIST_DIR})

# The plugin keeps one object for the life of the process on purpose. The runtime would guess
# the bounds of a library's thread-local data from its address alone, and now and then
# crash on them.
set(SANITIZER_ENVIRONMENT
    "LSAN_OPTIONS=suppressions=${TEST_SUPPORT_DIR}/lsan.supp:print_suppressions=0:intercept_tls_get_addr=0"
    "TSAN_OPTIONS=halt_on_error=1")
# The same for gtest_discover_tests, which passes on one value for a property.
list(GET SANITIZER_ENVIRONMENT 0 lsan_options)
set(SANITIZER_PROPERTIES ENVIRONMENT ${lsan_options}
    ENVIRONMENT_MODIFICATION "TSAN_OPTIONS=set:halt_on_error=1")

# add_sandboxed_lua_test(NAME SCRIPT): the script under stock lua5.2 in the sandbox, with
# the recording driver in the place of libvxi. The preloads are for the interpreter alone.
function(add_sandboxed_lua_test name script)
    set(environment ${LUA_TEST_ENVIRONMENT})
    set(preload $<TARGET_FILE:recorder>)
    foreach(item ${environment})
        if(item MATCHES "^LD_PRELOAD=(.*)")
            set(preload "${CMAKE_MATCH_1}:${preload}")
        endif()
    endforeach()
    list(FILTER environment EXCLUDE REGEX "^LD_PRELOAD=")
    list(FILTER environment EXCLUDE REGEX "^LUA_CPATH=")
    add_test(NAME ${name} COMMAND sandbox_exec ${CMAKE_COMMAND} -E env
        ${environment} ${SANITIZER_ENVIRONMENT} LC_ALL=C
        "LUA_CPATH=${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/?.so;$<TARGET_FILE_DIR:recorder>/?.so"
        "LUA_PATH=${TEST_SUPPORT_DIR}/?.lua;;"
        "LD_PRELOAD=${preload}"
        ${LUA} ${CMAKE_CURRENT_SOURCE_DIR}/${script})
    set_tests_properties(${name} PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 120)
endfunction()

# add_plugin_lua_test(NAME SCRIPT): the script under stock lua5.2, on the built libraries.
function(add_plugin_lua_test name script)
    add_test(NAME ${name} COMMAND ${LUA} ${CMAKE_CURRENT_SOURCE_DIR}/${script})
    set_tests_properties(${name} PROPERTIES TIMEOUT 300 ENVIRONMENT
        "${LUA_TEST_ENVIRONMENT};${SANITIZER_ENVIRONMENT};LUA_PATH=${TEST_SUPPORT_DIR}/?.lua\;\;")
endfunction()

# discover_plugin_tests(TARGET): its GoogleTest cases, with the environment they need.
function(discover_plugin_tests target)
    gtest_discover_tests(${target} DISCOVERY_MODE PRE_TEST
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
