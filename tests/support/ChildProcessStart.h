// How a child process learns what it is to do.
#pragma once

namespace QsTest {

// Variable of its environment: the function and its arguments, UTF-8, one on a line.
constexpr const char* s_childVariable = "QS_TEST_CHILD_PROCESS";

} // namespace QsTest
