# Everything that is built counts which lines and branches of src/ ran, tests
# included, as the headers' templates and inline functions live in both. Not
# optimised, so that what is counted is what is written.
if(ORVEXENG_COVERAGE)
  add_compile_options(--coverage -O0 -fprofile-update=atomic
    "-fprofile-filter-files=${PROJECT_SOURCE_DIR}/src/.*")
  add_link_options(--coverage)
endif()
