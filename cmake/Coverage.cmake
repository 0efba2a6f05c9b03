# CRC_COVERAGE: programs that write which of their lines and branches ran. Set by the preset
# `coverage`. The tests' own code is left out: see tests/CMakeLists.txt.
option(CRC_COVERAGE "Write which lines and branches ran" OFF)

if(CRC_COVERAGE)
    # Threads count at the same time.
    add_compile_options(-fprofile-arcs -ftest-coverage -fprofile-update=atomic -fprofile-abs-path)
    add_link_options(--coverage)
    # gcov writes at exit(), which most of our programs never reach.
    add_library(coverage_at_end STATIC ${CMAKE_SOURCE_DIR}/tests/coverage/at_end.c)
    target_compile_options(coverage_at_end PRIVATE -fno-profile-arcs -fno-test-coverage)
    link_libraries($<$<NOT:$<STREQUAL:$<TARGET_PROPERTY:TYPE>,STATIC_LIBRARY>>:coverage_at_end>)
    add_link_options(-Wl,-u,coverage_write_and_die)
endif()
