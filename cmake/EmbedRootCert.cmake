# vt_embed_root_cert(<der file> <output .cpp>)
#
# Turns the root certificate that verify_tool trusts into two constant arrays:
# g_rootCert0 (everything but the last 131 bytes) and g_rootCert1 (the last
# 131 bytes, which lie inside the signature), plus their lengths. The file must
# hold exactly one DER certificate: an outer SEQUENCE with a two-byte long-form
# length covering the whole file, whose content is exactly a SEQUENCE
# (tbsCertificate), a SEQUENCE (signatureAlgorithm) and a BIT STRING
# (signatureValue). Anything else stops the configuration.

set(VT_ROOT_TAIL_LEN 131)

# Reads one DER header at byte `pos` of the hex string; sets <prefix>_TAG,
# <prefix>_HDR (header length) and <prefix>_LEN (content length).
function(_vt_der_header hex size pos prefix)
    if(pos GREATER_EQUAL size)
        message(FATAL_ERROR "root certificate: truncated at byte ${pos}")
    endif()
    math(EXPR off "${pos} * 2")
    string(SUBSTRING "${hex}" ${off} 2 tag)
    math(EXPR lpos "${pos} + 1")
    if(lpos GREATER_EQUAL size)
        message(FATAL_ERROR "root certificate: truncated header at byte ${pos}")
    endif()
    math(EXPR off "${lpos} * 2")
    string(SUBSTRING "${hex}" ${off} 2 first)
    math(EXPR first "0x${first}")
    if(first LESS 128)
        set(hdr 2)
        set(len ${first})
    else()
        math(EXPR count "${first} - 128")
        if(count LESS 1 OR count GREATER 3)
            message(FATAL_ERROR "root certificate: unsupported length form at byte ${pos}")
        endif()
        math(EXPR hdr "2 + ${count}")
        math(EXPR end "${pos} + ${hdr}")
        if(end GREATER size)
            message(FATAL_ERROR "root certificate: truncated length at byte ${pos}")
        endif()
        math(EXPR off "(${lpos} + 1) * 2")
        math(EXPR nhex "${count} * 2")
        string(SUBSTRING "${hex}" ${off} ${nhex} lenhex)
        math(EXPR len "0x${lenhex}")
    endif()
    set(${prefix}_TAG ${tag} PARENT_SCOPE)
    set(${prefix}_HDR ${hdr} PARENT_SCOPE)
    set(${prefix}_LEN ${len} PARENT_SCOPE)
endfunction()

# "0x30, 0x82, ..." lines of 12 bytes for `count` bytes from byte `pos`.
function(_vt_c_bytes hex pos count out)
    set(text "")
    set(done 0)
    while(done LESS count)
        math(EXPR left "${count} - ${done}")
        set(n 12)
        if(left LESS n)
            set(n ${left})
        endif()
        math(EXPR off "(${pos} + ${done}) * 2")
        math(EXPR nhex "${n} * 2")
        string(SUBSTRING "${hex}" ${off} ${nhex} part)
        string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1, " part "${part}")
        string(STRIP "${part}" part)
        string(APPEND text "    ${part}\n")
        math(EXPR done "${done} + ${n}")
    endwhile()
    set(${out} "${text}" PARENT_SCOPE)
endfunction()

function(vt_embed_root_cert der out)
    if(NOT EXISTS "${der}")
        message(FATAL_ERROR "root certificate ${der} does not exist")
    endif()
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${der}")
    file(READ "${der}" hex HEX)
    string(LENGTH "${hex}" nhex)
    math(EXPR size "${nhex} / 2")

    _vt_der_header("${hex}" ${size} 0 outer)
    if(NOT outer_TAG STREQUAL "30" OR NOT outer_HDR EQUAL 4)
        message(FATAL_ERROR "root certificate ${der}: not a SEQUENCE with a two-byte length")
    endif()
    math(EXPR total "${outer_HDR} + ${outer_LEN}")
    if(NOT total EQUAL size)
        message(FATAL_ERROR "root certificate ${der}: ${size} bytes, but its DER says ${total}")
    endif()
    set(pos ${outer_HDR})
    foreach(want IN ITEMS 30 30 03)
        _vt_der_header("${hex}" ${size} ${pos} part)
        if(NOT part_TAG STREQUAL want)
            message(FATAL_ERROR "root certificate ${der}: byte ${pos} is tag ${part_TAG}, not ${want}")
        endif()
        math(EXPR pos "${pos} + ${part_HDR} + ${part_LEN}")
        if(pos GREATER size)
            message(FATAL_ERROR "root certificate ${der}: element overruns the certificate")
        endif()
    endforeach()
    if(NOT pos EQUAL size)
        message(FATAL_ERROR "root certificate ${der}: not exactly one certificate")
    endif()
    if(part_LEN LESS VT_ROOT_TAIL_LEN)
        message(FATAL_ERROR "root certificate ${der}: signature shorter than the ${VT_ROOT_TAIL_LEN}-byte tail")
    endif()

    math(EXPR head_len "${size} - ${VT_ROOT_TAIL_LEN}")
    _vt_c_bytes("${hex}" 0 ${head_len} head)
    _vt_c_bytes("${hex}" ${head_len} ${VT_ROOT_TAIL_LEN} tail)
    file(CONFIGURE OUTPUT "${out}" @ONLY CONTENT
"// Generated from @der@ by cmake/EmbedRootCert.cmake; do not edit.
#include \"root_cert/root_cert.h\"

const unsigned char g_rootCert0[ROOT_CERT_HEAD_LEN] = {
@head@};
const unsigned char g_rootCert1[ROOT_CERT_TAIL_LEN] = {
@tail@};
")
    set(VT_ROOT_CERT_LEN ${size} PARENT_SCOPE)
    set(VT_ROOT_CERT_HEAD_LEN ${head_len} PARENT_SCOPE)
    message(STATUS "verify_tool trusts ${der} (${size} bytes)")
endfunction()
