# Fuzzing build: clang's libFuzzer with AddressSanitizer and UndefinedBehaviorSanitizer. Every
# object is instrumented for coverage; only the harness executables link libFuzzer's driver
# (fuzz/CMakeLists.txt), so the libraries stay ordinary static code.
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  message(FATAL_ERROR "SMB_FUZZ needs clang: configure with CC=clang CXX=clang++")
endif()
add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                    -fno-sanitize-recover=undefined -gline-tables-only)
add_link_options(-fsanitize=address,undefined)
