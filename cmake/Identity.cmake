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
