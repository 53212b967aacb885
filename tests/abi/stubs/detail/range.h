// Access to ranges, which every container's header offers.
#pragma once

#include "absent.h"

#include <cstddef>

namespace std {
template <class Container>
auto begin(Container& container) -> decltype(container.begin())
{
    QS_ABSENT();
}
template <class T, size_t count>
T* begin(T (&array)[count])
{
    QS_ABSENT();
}
template <class Container>
auto end(Container& container) -> decltype(container.end())
{
    QS_ABSENT();
}
template <class T, size_t count>
T* end(T (&array)[count])
{
    QS_ABSENT();
}
} // namespace std
