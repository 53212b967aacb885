// Body of what is declared here and never run. Templates need one, since nobody else could give it for a type that a
// single source knows.
#pragma once

#define QS_ABSENT() __builtin_trap()
