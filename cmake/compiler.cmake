# kvtile_warnings: what every target of this project is compiled with.
add_library(kvtile_warnings INTERFACE)
target_compile_options(kvtile_warnings INTERFACE
  -Wall -Wextra -Wconversion -Wshadow
  $<$<BOOL:${KVTILEIMAGE_WERROR}>:-Werror>)

if(KVTILEIMAGE_SANITIZE)
  add_compile_options(-fsanitize=${KVTILEIMAGE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KVTILEIMAGE_SANITIZE})
endif()

if(MINGW)
  # The libraries and programs bring libgcc, libstdc++ and winpthread along: they need system DLLs only.
  add_link_options(-static)
endif()
