# Warnings are errors for our own targets; third-party headers come in as SYSTEM.
add_library(zbiap_warnings INTERFACE)
target_compile_options(zbiap_warnings INTERFACE
  -Wall -Wextra -Werror -Wno-unused-parameter -Wnon-virtual-dtor
  # Shadowed locals, in each compiler's spelling.
  $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local>
  $<$<CXX_COMPILER_ID:Clang>:-Wshadow-uncaptured-local>)

if(ZBIAP_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(ZBIAP_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()

if(ZBIAP_BUILD_FUZZ)
  # Coverage for libFuzzer in every target; the harnesses add -fsanitize=fuzzer themselves.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
