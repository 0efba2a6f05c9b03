# Libraries that every host packages: json-c, cJSON and wolfSSL, found by header and name so that
# the same lines serve Debian and a router SDK's staging directory.

function(crc_find_library target header library)
    find_path(CRC_${library}_INCLUDE ${header})
    find_library(CRC_${library}_LIBRARY ${library})
    mark_as_advanced(CRC_${library}_INCLUDE CRC_${library}_LIBRARY)
    if(NOT CRC_${library}_INCLUDE OR NOT CRC_${library}_LIBRARY)
        message(FATAL_ERROR "${header} or lib${library} is missing.")
    endif()
    add_library(${target} UNKNOWN IMPORTED GLOBAL)
    set_target_properties(${target} PROPERTIES
        IMPORTED_LOCATION ${CRC_${library}_LIBRARY}
        INTERFACE_INCLUDE_DIRECTORIES ${CRC_${library}_INCLUDE})
endfunction()

crc_find_library(JsonC::JsonC json-c/json.h json-c)
crc_find_library(CJson::CJson cjson/cJSON.h cjson)
crc_find_library(WolfSSL::WolfSSL wolfssl/ssl.h wolfssl)

# Newer wolfSSL releases leave out the CyaSSL names; src/transport/compat then supplies them.
find_path(CRC_CYASSL_INCLUDE cyassl/ssl.h)
mark_as_advanced(CRC_CYASSL_INCLUDE)
if(CRC_CYASSL_INCLUDE)
    message(STATUS "CyaSSL names: wolfSSL's own cyassl/ssl.h")
else()
    message(STATUS "CyaSSL names: src/transport/compat/cyassl/ssl.h")
endif()

find_package(Threads REQUIRED)
