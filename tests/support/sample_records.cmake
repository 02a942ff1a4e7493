# The event-like sample records that the LZMA tests and the block benchmarks
# share. Included from the top level, not from tests/, so the benchmarks still
# build when the tests are turned off.
add_library(tarn_sample_records STATIC ${CMAKE_CURRENT_LIST_DIR}/sample_records.cpp)
target_include_directories(tarn_sample_records PUBLIC ${CMAKE_CURRENT_LIST_DIR}/..)
