# Wrong paths would show much later: as a missing header, or as a module that does not load.

function(complain text)
    set_property(GLOBAL APPEND_STRING PROPERTY wrong_paths "\n  ${text}")
endfunction()

# require_folder(OPTION HEADER...): the folder holds these headers.
function(require_folder option)
    foreach(header ${ARGN})
        if(NOT EXISTS ${${option}}/${header})
            complain("${option}: ${${option}} holds no ${header}")
        endif()
    endforeach()
endfunction()

function(require_file option)
    if(NOT EXISTS ${${option}} OR IS_DIRECTORY ${${option}})
        complain("${option}: ${${option}} is not a file")
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
        require_file(${option})
    endif()
endforeach()

get_property(wrong_paths GLOBAL PROPERTY wrong_paths)
if(wrong_paths)
    message(FATAL_ERROR "Wrong paths:${wrong_paths}")
endif()
