# The version and the build of a file, in the file itself.

# Packages name the build that wrote them.
add_link_options(-Wl,--build-id)

# add_identity(TARGET NAME): the target's file names itself and the version. For one target in each
# folder.
function(add_identity target name)
    set(source ${PROJECT_SOURCE_DIR}/cmake/identity.cpp)
    target_sources(${target} PRIVATE ${source})
    set_source_files_properties(${source} PROPERTIES COMPILE_DEFINITIONS
        "IDENTITY_NAME=\"${name}\";IDENTITY_VERSION=\"${PROJECT_VERSION}\"")
endfunction()

# set_versions(TARGET HEADER NAME): the target's soname has the version of its binary interface,
# which the header defines by that name.
function(set_versions target header name)
    set(header ${PROJECT_SOURCE_DIR}/imports/${header})
    set(definition " ${name} (= )?([0-9]+)")
    file(STRINGS ${header} line REGEX ${definition})
    if(NOT line MATCHES ${definition})
        message(FATAL_ERROR "${header} does not define ${name}")
    endif()
    set_target_properties(${target} PROPERTIES
        VERSION ${PROJECT_VERSION} SOVERSION ${CMAKE_MATCH_2})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})
endfunction()
