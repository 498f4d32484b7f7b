# Everything that is built, tests included, checks itself while it runs. The first
# finding ends the program.
if(ORVEXENG_SANITIZE)
  add_compile_options(-fsanitize=${ORVEXENG_SANITIZE} -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ORVEXENG_SANITIZE})
endif()
