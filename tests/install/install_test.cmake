# cmake -P driver of the install test (see CMakeLists.txt for its inputs).
# Everything it writes lives in one temporary directory, removed at the end.
cmake_minimum_required(VERSION 3.25)

string(REPLACE "|" ";" emulator "${EMULATOR}")
execute_process(COMMAND mktemp -d /tmp/vt_install_XXXXXX OUTPUT_VARIABLE tmp
    OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "mktemp failed")
endif()
set(prefix ${tmp}/prefix)
set(pkg ${tmp}/pkg)

function(fail text)
    file(REMOVE_RECURSE ${tmp})
    message(FATAL_ERROR "${text}")
endfunction()

# Runs a command; fails the test unless it exits with `want`.
function(run want what)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    message(STATUS "${what}: exit ${rc}\n${out}")
    if(NOT "${rc}" STREQUAL "${want}")
        fail("${what}: exit ${rc}, expected ${want}\n${out}${err}")
    endif()
endfunction()

run(0 "cmake --install" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# What a user expects to find, and no test-only library or program.
foreach(file IN ITEMS bin/verify_tool bin/crl_info share/man/man1/verify_tool.1
        include/dorvex/cms/dorvex.h include/dorvex/cms/base/dorvex_errno.h
        include/dorvex/cms/base/vrf_ctx.h include/dorvex/dbglog/dbglog.h
        include/dorvex/platform/securec.h lib/pkgconfig/dorvex.pc
        lib/cmake/Dorvex/DorvexConfig.cmake lib/cmake/Dorvex/DorvexTargets.cmake)
    if(NOT EXISTS ${prefix}/${file})
        fail("${file} is not installed")
    endif()
endforeach()
file(GLOB archives RELATIVE ${prefix}/lib ${prefix}/lib/*)
list(FILTER archives EXCLUDE REGEX "^(pkgconfig|cmake)$")
list(SORT archives)
set(want libcms.a libcms_adapt.a libcms_asn1.a libcms_base.a libcms_pki.a libdbglog.a libplatform.a)
if(NOT archives STREQUAL want)
    fail("lib/ holds ${archives}, expected ${want}")
endif()
file(GLOB programs RELATIVE ${prefix}/bin ${prefix}/bin/*)
list(SORT programs)
if(NOT programs STREQUAL "crl_info;verify_tool")
    fail("bin/ holds ${programs}")
endif()

run(0 "testpki demo-package" ${emulator} ${TESTPKI} demo-package ${pkg})

# Checks the valid package (exit 0) and its tampered checksum file (exit 1:
# the verification completed and refused it) with one consumer binary.
function(check_consumer name program)
    set(args ${pkg}/root.der ${pkg}/crls+ca.pem)
    run(0 "${name} on the valid package" ${emulator} ${program} ${tmp}/sandbox-${name}-valid
        ${args} ${pkg}/sha256sums ${pkg}/sha256sums.p7s)
    run(1 "${name} on the tampered package" ${emulator} ${program} ${tmp}/sandbox-${name}-tampered
        ${args} ${pkg}/sha256sums.tampered ${pkg}/sha256sums.p7s)
endfunction()

# pkg-config consumer: cc $(pkg-config --cflags --libs --static dorvex).
set(pc_env PKG_CONFIG_PATH=${prefix}/lib/pkgconfig)
if(PKG_CONFIG_LIBDIR)
    list(APPEND pc_env PKG_CONFIG_LIBDIR=${PKG_CONFIG_LIBDIR})
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E env ${pc_env} ${PKG_CONFIG} --cflags --libs --static dorvex
    RESULT_VARIABLE rc OUTPUT_VARIABLE pc_flags ERROR_VARIABLE err OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
    fail("pkg-config dorvex: ${err}")
endif()
message(STATUS "pkg-config --cflags --libs --static dorvex: ${pc_flags}")
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
separate_arguments(c_flags UNIX_COMMAND "${C_FLAGS}")
run(0 "cc with pkg-config" ${C_COMPILER} ${c_flags} -std=c11 -Wall -Wextra -Werror
    ${SOURCE_DIR}/verify_package.c -o ${tmp}/verify_package_pc ${pc_flags})
check_consumer(pkgconfig ${tmp}/verify_package_pc)

# CMake consumer: find_package(Dorvex) and Dorvex::cms.
set(configure ${CMAKE_COMMAND} -S ${SOURCE_DIR}/consumer -B ${tmp}/consumer -G ${GENERATOR}
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_C_FLAGS=${C_FLAGS}"
    "-DCMAKE_CXX_FLAGS=${C_FLAGS}")
if(TOOLCHAIN_FILE)
    list(APPEND configure -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN_FILE})
endif()
run(0 "configure the CMake consumer" ${configure})
run(0 "build the CMake consumer" ${CMAKE_COMMAND} --build ${tmp}/consumer)
check_consumer(cmake ${tmp}/consumer/verify_package)

file(REMOVE_RECURSE ${tmp})
