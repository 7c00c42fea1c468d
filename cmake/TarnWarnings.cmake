# Warning flags shared by every target of the project.
add_library(tarn_warnings INTERFACE)
target_compile_options(tarn_warnings INTERFACE -Wall -Wextra -Wpedantic)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # Lock-guarded fields carry annotations; clang checks them at compile time.
  target_compile_options(tarn_warnings INTERFACE -Wthread-safety)
endif()
if(TARN_WERROR)
  target_compile_options(tarn_warnings INTERFACE -Werror)
endif()
