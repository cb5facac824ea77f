# Whether an agent's headers and libraries are what the module needs. Otherwise that would show
# much later: as an error in a header, or as a module that does not load.

function(complain text)
    set_property(GLOBAL APPEND_STRING PROPERTY wrong_paths "\n  ${text}")
endfunction()

# complain_of(OPTION WHAT OUTPUT): with the first error in the output of a compiler or linker.
function(complain_of option what output)
    string(REGEX MATCH "[^\n]*(error|ld): [^\n]*" error "${output}")
    complain("${option}: ${what}: ${error}")
endfunction()

# ---- headers ------------------------------------------------------------------------------

# require_headers(OPTION FOLDERS HEADER...): the option's folder holds these headers, and they
# compile with those of the other folders.
function(require_headers option folders)
    set(source "")
    foreach(header ${ARGN})
        if(NOT EXISTS "${${option}}/${header}")
            complain("${option}: ${${option}} has no ${header}")
            set(is_incomplete ON)
        endif()
        string(APPEND source "#include \"${header}\"\n")
    endforeach()
    if(is_incomplete)
        return()
    endif()
    set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
    list(PREPEND folders ${${option}} ${wx_include_dirs} ${lua_INCLUDE_DIRS})
    try_compile(compiles SOURCE_FROM_VAR headers.cpp source NO_CACHE OUTPUT_VARIABLE output
        CMAKE_FLAGS "-DINCLUDE_DIRECTORIES=${folders}" COMPILE_DEFINITIONS ${wx_flags}
        CXX_STANDARD ${CMAKE_CXX_STANDARD} CXX_STANDARD_REQUIRED ON)
    if(NOT compiles)
        complain_of(${option} "the headers cannot be compiled" "${output}")
    endif()
endfunction()

# ---- libraries ----------------------------------------------------------------------------

# How they begin, in hexadecimal: an ELF file whose type is shared object, in either byte order, or
# a linker script; a library may also be a static one.
set(shared_library "7f454c46........................(0300|0003)|2f2a")
set(library "${shared_library}|213c617263683e")

# require_library(OPTION KIND NM_OPTION FUNCTION...): a library of this kind that can be linked and
# defines these functions; nm_option: which of its symbols count.
function(require_library option kind nm_option)
    set(file "${${option}}")
    if(NOT IS_ABSOLUTE "${file}" OR NOT EXISTS "${file}" OR IS_DIRECTORY "${file}")
        complain("${option}: ${file} is not a file")
        return()
    endif()
    file(READ "${file}" start LIMIT 18 HEX)
    if(NOT start MATCHES "^(${${kind}})")
        string(REPLACE "_" " " kind ${kind})
        complain("${option}: ${file} is not a ${kind}")
        return()
    endif()
    # Into a shared object: others may define what the library itself lacks.
    try_compile(links SOURCE_FROM_CONTENT module.cpp "" NO_CACHE OUTPUT_VARIABLE output
        LINK_OPTIONS -shared -Wl,--whole-archive "${file}" -Wl,--no-whole-archive)
    if(NOT links)
        complain_of(${option} "${file} cannot be linked" "${output}")
        return()
    endif()
    # nm does not read linker scripts. The functions may have versions ("vxi_open@@VXI_1").
    execute_process(COMMAND ${CMAKE_NM} -C --defined-only ${nm_option} "${file}"
        OUTPUT_VARIABLE defined ERROR_QUIET RESULT_VARIABLE status)
    string(REGEX REPLACE "@[^\n]*" "" defined "${defined}")
    set(missing "")
    foreach(function ${ARGN})
        string(FIND "${defined}" " ${function}" position)
        if(position EQUAL -1)
            string(STRIP "${function}" function)
            string(APPEND missing "\n      ${function}")
        endif()
    endforeach()
    if(missing AND status EQUAL 0)
        complain("${option}: ${file} does not define${missing}")
    endif()
endfunction()

# ---- options ------------------------------------------------------------------------------

# Whether the option has a value, even one that is false in conditions.
function(is_given option variable)
    string(COMPARE NOTEQUAL "${${option}}" "" is_given)
    set(${variable} ${is_given} PARENT_SCOPE)
endfunction()

set(slb3_folder ${PROJECT_SOURCE_DIR}/imports/slb3)
is_given(FC_SLB3_INCLUDE_DIR has_slb3_headers)
is_given(FC_SLB3_LIBRARY has_slb3_library)
if(has_slb3_headers)
    set(slb3_folder ${FC_SLB3_INCLUDE_DIR})
    require_headers(FC_SLB3_INCLUDE_DIR "" SLB3/slb.h)
endif()
if(has_slb3_library)
    require_library(FC_SLB3_LIBRARY library -g "SLB3::Namespace::Namespace(")
endif()
if(has_slb3_headers AND NOT has_slb3_library)
    complain("FC_SLB3_INCLUDE_DIR: needs FC_SLB3_LIBRARY, the library of these headers")
elseif(has_slb3_library AND NOT has_slb3_headers)
    complain("FC_SLB3_LIBRARY: needs FC_SLB3_INCLUDE_DIR, the folder with its headers")
endif()

if(NOT FC_IMPORTS_INCLUDE_DIR STREQUAL "${PROJECT_SOURCE_DIR}/imports")
    require_headers(FC_IMPORTS_INCLUDE_DIR "${slb3_folder}" vxi/vxi.h VxaCore/Dom.h
        VxaCore/LogTrace.h VxaCore/ZipOutputStream.h)
endif()

# Old libraries lack the functions that return their versions.
file(STRINGS imports/symbols.txt functions)
list(FILTER functions EXCLUDE REGEX "abi_version|AbiVersion")
foreach(library "FC_VXI_LIBRARY EXCLUDE" "FC_VXA_CORE_LIBRARY INCLUDE")
    separate_arguments(library)
    list(POP_FRONT library option choice)
    set(needed ${functions})
    list(FILTER needed ${choice} REGEX "^VxaCore::")
    list(TRANSFORM needed APPEND "\n")
    is_given(${option} has_library)
    if(has_library)
        require_library(${option} shared_library -D ${needed})
    endif()
endforeach()

get_property(wrong_paths GLOBAL PROPERTY wrong_paths)
if(wrong_paths)
    message(FATAL_ERROR "Wrong paths:${wrong_paths}")
endif()
