# What the sources include and link, as interface targets.

find_package(PkgConfig REQUIRED)
pkg_check_modules(cjson REQUIRED IMPORTED_TARGET libcjson)

# Headers only: modules loaded by Lua must take its API from the interpreter that
# loads them. A second copy of Lua in the process would break both.
pkg_check_modules(lua REQUIRED lua5.2)
add_library(lua_headers INTERFACE)
target_include_directories(lua_headers SYSTEM INTERFACE ${lua_INCLUDE_DIRS})

find_program(WX_CONFIG wx-config REQUIRED)
execute_process(COMMAND ${WX_CONFIG} --cxxflags base OUTPUT_VARIABLE wx_flags
    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${WX_CONFIG} --libs base OUTPUT_VARIABLE wx_libs
    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(wx_flags UNIX_COMMAND "${wx_flags}")
separate_arguments(wx_libs UNIX_COMMAND "${wx_libs}")
set(wx_include_dirs ${wx_flags})
list(FILTER wx_include_dirs INCLUDE REGEX "^-I")
list(TRANSFORM wx_include_dirs REPLACE "^-I" "")
list(FILTER wx_flags EXCLUDE REGEX "^-I")
add_library(wx_base INTERFACE)
target_include_directories(wx_base SYSTEM INTERFACE ${wx_include_dirs})
target_compile_options(wx_base INTERFACE ${wx_flags})
target_link_libraries(wx_base INTERFACE ${wx_libs})

add_library(slb3 INTERFACE)
target_link_libraries(slb3 INTERFACE lua_headers)
target_link_libraries(slb3 INTERFACE ${FC_SLB3_LIBRARY})
if(FC_SLB3_INCLUDE_DIR)
    target_include_directories(slb3 SYSTEM INTERFACE ${FC_SLB3_INCLUDE_DIR})
else()
    target_include_directories(slb3 INTERFACE ${CMAKE_CURRENT_SOURCE_DIR}/imports/slb3)
endif()

# What the plugin calls: headers of the agent's libraries.
add_library(imports INTERFACE)
target_include_directories(imports INTERFACE ${FC_IMPORTS_INCLUDE_DIR})
target_link_libraries(imports INTERFACE slb3 wx_base)

foreach(import vxi vxa_core)
    string(TOUPPER FC_${import}_LIBRARY given)
    if(${given})
        add_library(${import} SHARED IMPORTED)
        set_target_properties(${import} PROPERTIES IMPORTED_LOCATION "${${given}}")
    endif()
endforeach()

# The library exports what its exports.map lists, and nothing else.
function(limit_exports target)
    set(list ${CMAKE_CURRENT_SOURCE_DIR}/exports.map)
    target_link_options(${target} PRIVATE -Wl,--version-script=${list})
    set_target_properties(${target} PROPERTIES LINK_DEPENDS ${list})
endfunction()

# The host modules of a preset, loaded by Lua as NAME.so from its lib folder.
function(add_lua_module name)
    add_library(${name} MODULE ${ARGN})
    # Modules find the libraries beside them in the build, and wherever the installation is moved.
    # A RUNPATH to be replaced at installation would end in an empty part until then, for which
    # the loader takes the current folder.
    set_target_properties(${name} PROPERTIES PREFIX "" BUILD_WITH_INSTALL_RPATH ON
        INSTALL_RPATH "$ORIGIN;$ORIGIN/../.." INSTALL_RPATH_USE_LINK_PATH ON)
    target_link_libraries(${name} PRIVATE lua_headers)
endfunction()
