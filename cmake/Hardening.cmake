# The hardening of Debian's packages (dpkg-buildflags(1), hardening=+all) in every build that users
# run. A compiler or a processor without an option does without it.
#
# Sanitizers check more than _FORTIFY_SOURCE, and miss what its functions do.
include(CheckCompilerFlag)

if(FC_SANITIZE)
    return()
endif()

foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection)
    string(MAKE_C_IDENTIFIER "FC_HAS${flag}" supported)
    check_compiler_flag(CXX ${flag} ${supported})
    if(${supported})
        add_compile_options(${flag})
    endif()
endforeach()

# Needs optimisation: glibc warns without it. A level in the compiler's flags, such as Debian's,
# stays as it is.
if(NOT "${CMAKE_C_FLAGS} ${CMAKE_CXX_FLAGS}" MATCHES "_FORTIFY_SOURCE")
    add_compile_options(
        "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3>")
endif()

add_link_options(-Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
