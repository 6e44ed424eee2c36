# Defines the target "hardening": what makes a fault of the program hard to exploit, which handles memory that
# an attacker may have filled.
#
# A target's options come after CMAKE_CXX_FLAGS and CMAKE_EXE_LINKER_FLAGS on the command line and would
# override them. What these mention is therefore left to them: the builder or the distribution has decided it.

include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckPIESupported)

add_library(hardening INTERFACE)
set(builder_flags "${CMAKE_CXX_FLAGS} ${CMAKE_EXE_LINKER_FLAGS}")

# Adds the compiler option where the compiler has it.
function(add_hardening_option option topic)
    if(builder_flags MATCHES "${topic}")
        return()
    endif()
    string(MAKE_C_IDENTIFIER "HAS${option}" supported)
    check_cxx_compiler_flag(${option} ${supported})
    if(${supported})
        target_compile_options(hardening INTERFACE ${option})
    endif()
endfunction()

add_hardening_option(-fstack-protector-strong stack-protector)
add_hardening_option(-fstack-clash-protection stack-clash-protection)
add_hardening_option(-fcf-protection=full cf-protection)

if(NOT builder_flags MATCHES "_FORTIFY_SOURCE")
    # A compiler may come with a level of its own, which would be redefined.
    set(CMAKE_REQUIRED_FLAGS "-O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
    check_cxx_source_compiles("
        #include <features.h>
        #if __USE_FORTIFY_LEVEL < 3
        #error
        #endif
        int main() {}" HAS_FORTIFY_LEVEL_3)
    unset(CMAKE_REQUIRED_FLAGS)
    set(level $<IF:$<BOOL:${HAS_FORTIFY_LEVEL_3}>,3,2>)
    # The checks are made by the optimizer; without it, the C library warns that there are none.
    target_compile_options(hardening INTERFACE
        "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=${level}>")
endif()

if(NOT builder_flags MATCHES "no-(pie|PIE)")
    # Without this, CMake compiles, but does not link, position-independent executables.
    check_pie_supported()
    set_target_properties(hardening PROPERTIES INTERFACE_POSITION_INDEPENDENT_CODE ON)
endif()

if(NOT builder_flags MATCHES "relro")
    target_link_options(hardening INTERFACE LINKER:-z,relro)
endif()
if(NOT builder_flags MATCHES "-z[, ]*(now|lazy)")
    target_link_options(hardening INTERFACE LINKER:-z,now)
endif()
