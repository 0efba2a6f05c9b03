# Where the router userland comes from: libubox, libuci and libubus.
#
# CRC_USERLAND  auto     an installed library where there is one (a router SDK's staging directory
#                        in CMAKE_PREFIX_PATH), else ours
#               system   installed libraries only
#               bundled  ours only: deps/build.sh for libubox and libuci, bus/ for libubus
#
# Gives the targets userland::ubox, userland::blobmsg_json, userland::uci and userland::ubus, and
# CRC_BUNDLED_UBUS, true when bus/ is to be built.

set(CRC_USERLAND auto CACHE STRING "Where libubox, libuci and libubus come from")
set_property(CACHE CRC_USERLAND PROPERTY STRINGS auto system bundled)
if(NOT CRC_USERLAND MATCHES "^(auto|system|bundled)$")
    message(FATAL_ERROR "CRC_USERLAND is \"${CRC_USERLAND}\"; it must be auto, system or bundled.")
endif()

function(userland_find name header library)
    if(CRC_USERLAND STREQUAL bundled)
        return()
    endif()
    find_path(CRC_SYSTEM_${name}_INCLUDE ${header})
    find_library(CRC_SYSTEM_${name}_LIBRARY ${library})
    mark_as_advanced(CRC_SYSTEM_${name}_INCLUDE CRC_SYSTEM_${name}_LIBRARY)
    if(CRC_SYSTEM_${name}_INCLUDE AND CRC_SYSTEM_${name}_LIBRARY)
        set(CRC_FOUND_${name} TRUE PARENT_SCOPE)
    elseif(CRC_USERLAND STREQUAL system)
        message(FATAL_ERROR "CRC_USERLAND is system, but ${header} or lib${library} is not in "
            "CMAKE_PREFIX_PATH.")
    endif()
endfunction()

function(userland_target name include library)
    add_library(userland::${name} UNKNOWN IMPORTED GLOBAL)
    set_target_properties(userland::${name} PROPERTIES
        IMPORTED_LOCATION ${library}
        INTERFACE_INCLUDE_DIRECTORIES ${include})
endfunction()

userland_find(ubox libubox/uloop.h ubox)
userland_find(blobmsg_json libubox/blobmsg_json.h blobmsg_json)
userland_find(uci uci.h uci)
userland_find(ubus libubus.h ubus)

# libubox and blobmsg_json are one package, and libuci is built against it: taken together or not
# at all, so that no program holds two copies of libubox.
if(CRC_FOUND_ubox AND CRC_FOUND_blobmsg_json AND CRC_FOUND_uci)
    foreach(name ubox blobmsg_json uci)
        userland_target(${name} ${CRC_SYSTEM_${name}_INCLUDE} ${CRC_SYSTEM_${name}_LIBRARY})
    endforeach()
    message(STATUS "libubox: installed, ${CRC_SYSTEM_ubox_LIBRARY}")
    message(STATUS "libuci:  installed, ${CRC_SYSTEM_uci_LIBRARY}")
    find_program(CRC_UCI_TOOL uci)
else()
    # One prefix for all builds that run on this machine; another CPU's build has its own, and so
    # has each sanitizer, which sees into both libraries.
    if(CMAKE_CROSSCOMPILING)
        set(CRC_DEPS_PREFIX ${CMAKE_BINARY_DIR}/deps/prefix)
    elseif(CRC_SANITIZE)
        set(CRC_DEPS_PREFIX ${CMAKE_SOURCE_DIR}/build/deps/${CRC_SANITIZE})
        list(JOIN crc_sanitizer_flags " " flags)
        # libubox reads numbers of 8 bytes that it aligns to 4.
        set(compiler ${CMAKE_C_COMPILER}
            "${CMAKE_C_FLAGS_RELWITHDEBINFO} ${flags} -fno-sanitize=alignment")
    else()
        set(CRC_DEPS_PREFIX ${CMAKE_SOURCE_DIR}/build/deps/prefix)
    endif()
    message(STATUS "libubox: bundled, ${CRC_DEPS_PREFIX}")
    message(STATUS "libuci:  bundled, ${CRC_DEPS_PREFIX}")
    execute_process(COMMAND ${CMAKE_SOURCE_DIR}/deps/build.sh ${CRC_DEPS_PREFIX}
            "${CMAKE_TOOLCHAIN_FILE}" ${compiler}
        RESULT_VARIABLE failed)
    if(failed)
        message(FATAL_ERROR "libubox and libuci could not be obtained and built; the reason stands "
            "above.")
    endif()
    foreach(name ubox blobmsg_json uci)
        userland_target(${name} ${CRC_DEPS_PREFIX}/include ${CRC_DEPS_PREFIX}/lib/lib${name}.a)
    endforeach()
    set(CRC_UCI_TOOL ${CRC_DEPS_PREFIX}/bin/uci)
    set(CRC_FOUND_ubus FALSE) # an installed libubus would bring the installed libubox along
endif()
set_property(TARGET userland::uci APPEND PROPERTY INTERFACE_LINK_LIBRARIES userland::ubox)
set_property(TARGET userland::blobmsg_json APPEND PROPERTY
    INTERFACE_LINK_LIBRARIES userland::ubox JsonC::JsonC)

if(CRC_FOUND_ubus)
    userland_target(ubus ${CRC_SYSTEM_ubus_INCLUDE} ${CRC_SYSTEM_ubus_LIBRARY})
    set_property(TARGET userland::ubus APPEND PROPERTY INTERFACE_LINK_LIBRARIES userland::ubox)
    set(CRC_BUNDLED_UBUS FALSE)
    message(STATUS "libubus: installed, ${CRC_SYSTEM_ubus_LIBRARY}")
else()
    set(CRC_BUNDLED_UBUS TRUE)
    message(STATUS "libubus: bundled, ${CMAKE_SOURCE_DIR}/bus")
endif()
