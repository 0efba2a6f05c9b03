# CRC_SANITIZE: empty, "address" (with undefined behaviour) or "thread". Set by the presets, for
# the whole build, so that libraries and harnesses are instrumented alike.
set(CRC_SANITIZE "" CACHE STRING "Sanitizers: empty, address or thread")
set_property(CACHE CRC_SANITIZE PROPERTY STRINGS "" address thread)

if(CRC_SANITIZE STREQUAL "address")
    # vptr checks need RTTI, which the daemon is built without.
    set(crc_sanitizer_flags -fsanitize=address,undefined -fno-sanitize=vptr
        -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(CRC_SANITIZE STREQUAL "thread")
    set(crc_sanitizer_flags -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT CRC_SANITIZE STREQUAL "")
    message(FATAL_ERROR "CRC_SANITIZE is \"${CRC_SANITIZE}\"; it must be empty, address or thread.")
endif()

add_compile_options(${crc_sanitizer_flags})
add_link_options(${crc_sanitizer_flags})
