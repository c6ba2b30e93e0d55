#pragma once

// Roles for the test executable when it runs itself again (ChildProcess::startRole): besides
// "--peer" and "--module", a suite registers a flag and the role's main from a static
// initializer (`static bool registered = registerChildRole("--my-role", &myRoleMain);`), and
// the test executable started with that flag first runs the role instead of the tests.

namespace testing_support {

using ChildMain = int (*)(int argc, char** argv);

bool registerChildRole(char const* flag, ChildMain main);

}  // namespace testing_support
