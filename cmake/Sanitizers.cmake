if(SSO_SANITIZERS)
  add_compile_options(-fsanitize=${SSO_SANITIZERS} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${SSO_SANITIZERS})
endif()
