# Wrong paths would show much later: as a missing header, or as a module that does not load.

function(complain text)
    set_property(GLOBAL APPEND_STRING PROPERTY wrong_paths "\n  ${text}")
endfunction()

# require_folder(OPTION HEADER...): the folder holds these headers.
function(require_folder option)
    foreach(header ${ARGN})
        if(NOT EXISTS ${${option}}/${header})
            complain("${option}: ${${option}} has no ${header}")
        endif()
    endforeach()
endfunction()

# An ELF file, a static library or a linker script.
function(require_library option)
    set(library ${${option}})
    if(NOT EXISTS ${library} OR IS_DIRECTORY ${library})
        complain("${option}: ${library} is not a file")
        return()
    endif()
    file(READ ${library} start LIMIT 7 HEX)
    if(NOT start MATCHES "^(7f454c46|213c617263683e|2f2a)")
        complain("${option}: ${library} is not a library")
    endif()
endfunction()

require_folder(FC_IMPORTS_INCLUDE_DIR vxi/vxi.h VxaCore/Dom.h VxaCore/LogTrace.h
    VxaCore/ZipOutputStream.h)
if(FC_SLB3_INCLUDE_DIR)
    require_folder(FC_SLB3_INCLUDE_DIR SLB3/slb.h)
elseif(FC_SLB3_LIBRARY)
    complain("FC_SLB3_LIBRARY: needs FC_SLB3_INCLUDE_DIR, the folder with its headers")
endif()
foreach(option FC_VXI_LIBRARY FC_VXA_CORE_LIBRARY FC_SLB3_LIBRARY)
    if(${option})
        require_library(${option})
    endif()
endforeach()

get_property(wrong_paths GLOBAL PROPERTY wrong_paths)
if(wrong_paths)
    message(FATAL_ERROR "Wrong paths:${wrong_paths}")
endif()
