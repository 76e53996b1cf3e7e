# vt_static_program(<target>): with VT_STATIC, links the program without any
# shared library: libcrypto.a (chosen by OPENSSL_USE_STATIC_LIBS), the C++
# runtime and glibc. As a static PIE where the toolchain can make one, so the
# program keeps address-space randomisation; plain -static otherwise.
#
# The linker warns that libcrypto's dlopen and getaddrinfo would need the
# shared glibc at run time; neither is reached: the tool loads no provider
# modules and opens no sockets.
include(CheckCXXSourceCompiles)

if(VT_STATIC)
    set(CMAKE_REQUIRED_LINK_OPTIONS -static-pie)
    check_cxx_source_compiles("int main() { return 0; }" VT_HAVE_STATIC_PIE)
    unset(CMAKE_REQUIRED_LINK_OPTIONS)
    if(VT_HAVE_STATIC_PIE)
        set(VT_STATIC_LINK_OPTIONS -static-pie)
        # Every object of ours must then be position-independent.
        set(CMAKE_POSITION_INDEPENDENT_CODE ON)
    else()
        set(VT_STATIC_LINK_OPTIONS -static)
    endif()
endif()

# Without VT_STATIC the product programs still carry their C++ runtime
# (libstdc++, libgcc) inside: loading and binding the shared libstdc++ was an
# eighth of the instructions of a small check and a sixth of its page faults.
# Only libcrypto, which gets security updates, and glibc stay shared. The
# sanitizer builds keep the shared runtime their own libraries expect.
if(NOT VT_STATIC AND NOT VT_SANITIZE AND NOT VT_TSAN)
    set(CMAKE_REQUIRED_LINK_OPTIONS -static-libstdc++ -static-libgcc)
    check_cxx_source_compiles("#include <string>
        int main(int argc, char **) { return static_cast<int>(std::to_string(argc).size()); }"
                              VT_HAVE_STATIC_CXX_RUNTIME)
    unset(CMAKE_REQUIRED_LINK_OPTIONS)
endif()

function(vt_static_program target)
    if(VT_STATIC)
        target_link_options(${target} PRIVATE ${VT_STATIC_LINK_OPTIONS})
    elseif(VT_HAVE_STATIC_CXX_RUNTIME)
        target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc)
    endif()
endfunction()
