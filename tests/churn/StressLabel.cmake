# Runs after the churn suite's tests are discovered: labels each of them
# `stress` as well as `churn` (gtest_discover_tests cannot pass a list of
# labels through).
foreach(test IN LISTS tarn_churn_tests_TESTS)
  set_tests_properties("${test}" PROPERTIES LABELS "stress;churn")
endforeach()
