# Our own targets build with many warnings. They are errors only where ZBIAP_WARNINGS_AS_ERRORS
# is on (our presets and CI): a consumer's compiler, build type or optimiser may warn where ours
# does not, and that must not break their build.
add_library(zbiap_warnings INTERFACE)
target_compile_options(zbiap_warnings INTERFACE
  -Wall -Wextra -Wno-unused-parameter -Wnon-virtual-dtor
  $<$<BOOL:${ZBIAP_WARNINGS_AS_ERRORS}>:-Werror>
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
