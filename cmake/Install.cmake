# What `cmake --install` puts where, in components for packages: module, libraries, command,
# development and documentation.
include(CMakePackageConfigHelpers)

# Lua's own folders.
set(lua_modules ${CMAKE_INSTALL_LIBDIR}/lua/5.2)
set(lua_scripts ${CMAKE_INSTALL_DATADIR}/lua/5.2)
set(command_files ${CMAKE_INSTALL_DATADIR}/vxa)

# Whatever the permissions in this tree are; less under a stricter umask.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# path_from(BASE PATH VARIABLE): the relative path between two folders of the installation.
function(path_from base path variable)
    foreach(folder base path)
        get_filename_component(${folder} "${${folder}}" ABSOLUTE BASE_DIR "${CMAKE_INSTALL_PREFIX}")
    endforeach()
    file(RELATIVE_PATH relative "${base}" "${path}")
    string(REGEX REPLACE "/$" "" relative "${relative}")
    set(${variable} "${relative}" PARENT_SCOPE)
endfunction()

# ---- the product --------------------------------------------------------------------------

install(TARGETS fc LIBRARY DESTINATION ${lua_modules} COMPONENT module)
install(FILES lua/filter.lua lua/health_policy.lua lua/strict_json.lua
    DESTINATION ${lua_scripts} COMPONENT module)

# ---- its documentation --------------------------------------------------------------------

# install_document(FILE [NAME]): all documents are installed in one folder, so links lose the
# folders of this tree.
function(install_document file)
    get_filename_component(name ${file} NAME)
    if(ARGC GREATER 1)
        set(name ${ARGV1})
    endif()
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    file(READ ${file} text)
    string(REGEX REPLACE "\\]\\((\\.\\./)*host/driver/engines/([a-z]+)/README\\.md"
        "](engine-\\2.md" text "${text}")
    string(REGEX REPLACE "\\]\\((\\.\\./|docs/|commands/)+" "](" text "${text}")
    file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/install/${name} CONTENT "@text@" @ONLY)
    install(FILES ${CMAKE_BINARY_DIR}/install/${name} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/fc
        COMPONENT documentation)
endfunction()

# A part of the tree, such as an agent's build needs, may not have them.
file(GLOB documents RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
    README.md CHANGELOG.md CONTRIBUTING.md docs/*.md docs/commands/*.md)
foreach(document ${documents})
    install_document(${document})
endforeach()
file(GLOB pictures CONFIGURE_DEPENDS docs/*.png)
install(FILES ${pictures} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/fc COMPONENT documentation)
file(GLOB documents RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
    host/driver/engines/*/README.md)
foreach(document ${documents})
    string(REGEX REPLACE ".*/(.*)/README" "engine-\\1" name ${document})
    install_document(${document} ${name})
endforeach()

# What follows replaces the agent: a build against its libraries does not have it.
if(FC_VXI_LIBRARY OR FC_VXA_CORE_LIBRARY)
    return()
endif()

# ---- libraries ----------------------------------------------------------------------------

install(TARGETS vxi vxa_core EXPORT fc
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        COMPONENT libraries NAMELINK_COMPONENT development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/fc)

# ---- the command --------------------------------------------------------------------------

install(TARGETS vxa LIBRARY DESTINATION ${lua_modules} COMPONENT command)
install(DIRECTORY lua/vxa DESTINATION ${command_files}/lua COMPONENT command)
install(PROGRAMS share/simulated/nproc share/simulated/uptime
    DESTINATION ${command_files}/simulated COMPONENT command)
install(DIRECTORY share/prometheus DESTINATION ${command_files} COMPONENT command)
install(DIRECTORY share/examples DESTINATION ${command_files} COMPONENT command)

# The command finds everything else relative to its own place.
foreach(folder lua_modules lua_scripts command_files)
    path_from(${CMAKE_INSTALL_BINDIR}/.. ${${folder}} from_${folder})
endforeach()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS bin/vxa)
file(READ bin/vxa in_tree)
string(REGEX REPLACE "\nlocal LAYOUT = {[^}]*}" "
local LAYOUT = {
    command = \"${from_command_files}/lua\", scripts = \"${from_lua_scripts}\",
    modules = \"${from_lua_modules}\", shared = \"${from_command_files}\",
}" installed "${in_tree}")
if(installed STREQUAL in_tree)
    message(FATAL_ERROR "bin/vxa does not define LAYOUT")
endif()
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/install/vxa CONTENT "@installed@" @ONLY)
install(PROGRAMS ${CMAKE_BINARY_DIR}/install/vxa DESTINATION ${CMAKE_INSTALL_BINDIR}
    COMPONENT command)

# It names the command by its absolute path, which is known when it is installed. There, systemd
# takes %% for a percent sign.
install(CODE "set(installed_vxa \"${CMAKE_INSTALL_BINDIR}/vxa\")
cmake_path(ABSOLUTE_PATH installed_vxa BASE_DIRECTORY \"\${CMAKE_INSTALL_PREFIX}\")
string(REPLACE % %% installed_vxa \"\${installed_vxa}\")
configure_file(\"${PROJECT_SOURCE_DIR}/share/systemd/vxa.service.in\"
    \"${CMAKE_BINARY_DIR}/install/vxa.service\" @ONLY)" COMPONENT command)
install(FILES ${CMAKE_BINARY_DIR}/install/vxa.service DESTINATION lib/systemd/system
    COMPONENT command)

# ---- for programs that use the libraries --------------------------------------------------

install(DIRECTORY imports/vxi imports/VxaCore host/driver/include/vxi host/core/include/vxa_core
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/fc COMPONENT development
    FILES_MATCHING PATTERN *.h
    # Needs cJSON, for the libraries of this tree only.
    PATTERN json.h EXCLUDE)
install(DIRECTORY share/stubs DESTINATION ${command_files} COMPONENT development)
if(NOT FC_SLB3_INCLUDE_DIR)
    install(DIRECTORY imports/slb3/SLB3 DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/fc
        COMPONENT development FILES_MATCHING PATTERN *.h)
endif()

# Headers of vxa_core include those of wxWidgets and Lua. Only the program links with Lua, which
# a module must not.
target_include_directories(vxa_core SYSTEM INTERFACE
    "$<INSTALL_INTERFACE:${wx_include_dirs};${lua_INCLUDE_DIRS}>")
target_compile_options(vxa_core INTERFACE "$<INSTALL_INTERFACE:${wx_flags}>")
target_link_libraries(vxa_core INTERFACE "$<INSTALL_INTERFACE:${wx_libs}>")
install(EXPORT fc NAMESPACE fc:: FILE fc-targets.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/fc COMPONENT development)
configure_package_config_file(cmake/install/fc-config.cmake.in
    ${CMAKE_BINARY_DIR}/install/fc-config.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/fc)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/install/fc-config-version.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/install/fc-config.cmake
    ${CMAKE_BINARY_DIR}/install/fc-config-version.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/fc COMPONENT development)

path_from(${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX} pc_prefix)
path_from(${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_LIBDIR} pc_libdir)
path_from(${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_INCLUDEDIR} pc_includedir)
list(TRANSFORM wx_include_dirs PREPEND "-I" OUTPUT_VARIABLE pc_wx_flags)
list(APPEND pc_wx_flags ${wx_flags})
list(JOIN pc_wx_flags " " pc_wx_flags)
list(JOIN wx_libs " " pc_wx_libs)
foreach(library vxi vxa_core)
    configure_file(cmake/install/${library}.pc.in ${CMAKE_BINARY_DIR}/install/${library}.pc @ONLY)
    install(FILES ${CMAKE_BINARY_DIR}/install/${library}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()
