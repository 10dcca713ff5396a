# Compiler warnings and sanitizers applied to every target of this project.
add_library(skeldrin_options INTERFACE)
target_compile_options(skeldrin_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
  -Wcast-align -Woverloaded-virtual -Wnull-dereference -Wimplicit-fallthrough)
if(SKELDRIN_WERROR)
  target_compile_options(skeldrin_options INTERFACE -Werror)
endif()
if(SKELDRIN_SANITIZE)
  target_compile_options(skeldrin_options INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(skeldrin_options INTERFACE -fsanitize=address,undefined)
endif()
if(SKELDRIN_FUZZ)
  # Coverage for the fuzzer in every object; only the fuzz targets link its main.
  target_compile_options(skeldrin_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
