# PSP_SANITIZE: empty, "address" (with undefined behaviour) or "thread", for the whole tree.
set(PSP_SANITIZE "" CACHE STRING "Sanitizer: empty, address or thread")
if(PSP_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(PSP_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(PSP_SANITIZE)
  message(FATAL_ERROR "PSP_SANITIZE is '${PSP_SANITIZE}': give address, thread or nothing")
endif()
