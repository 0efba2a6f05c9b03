# CRC_SANITIZE: empty, "address" (with undefined behaviour), "thread", or "fuzzer" (as address, and
# clang's coverage counters, for tests/fuzz). Set by the presets, for the whole build, so that
# libraries and harnesses are instrumented alike.
set(CRC_SANITIZE "" CACHE STRING "Sanitizers: empty, address, thread or fuzzer")
set_property(CACHE CRC_SANITIZE PROPERTY STRINGS "" address thread fuzzer)

# vptr checks need RTTI, which the daemon is built without.
set(crc_address_flags -fsanitize=address,undefined -fno-sanitize=vptr
    -fno-sanitize-recover=all -fno-omit-frame-pointer)

if(CRC_SANITIZE STREQUAL "address")
    set(crc_sanitizer_flags ${crc_address_flags})
elseif(CRC_SANITIZE STREQUAL "thread")
    set(crc_sanitizer_flags -fsanitize=thread -fno-omit-frame-pointer)
elseif(CRC_SANITIZE STREQUAL "fuzzer")
    set(crc_sanitizer_flags ${crc_address_flags} -fsanitize=fuzzer-no-link)
elseif(NOT CRC_SANITIZE STREQUAL "")
    message(FATAL_ERROR
        "CRC_SANITIZE is \"${CRC_SANITIZE}\"; it must be empty, address, thread or fuzzer.")
endif()

add_compile_options(${crc_sanitizer_flags})
add_link_options(${crc_sanitizer_flags})
