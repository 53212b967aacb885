// What Clang prints about layouts (-fdump-vtable-layouts, -fdump-record-layouts), read.
#pragma once

#include "tests/abi/Compiler.h"
#include "tests/abi/GoldenLayouts.h"

#include <optional>
#include <string>
#include <vector>

namespace QsTest {

// A declaration in one spelling: without the names of enclosing classes and namespaces, without `class` and `struct`,
// blanks only where they separate words.
std::string Spelled(const std::string& declaration);

// The table that an object of the class has for the interface, its slots in order, from the one that a call of the
// interface's first operation would use where that is slot 0. Nothing when the text holds no such table.
std::optional<std::vector<SGoldenSlot>> FindTable(const SAnswer& layouts, const SAbi& abi, const std::string& interface,
                                                  const std::string& example);

std::optional<SGoldenRecord> FindRecord(const SAnswer& layouts, const std::string& name);
std::vector<std::string> FindBases(const SAnswer& layouts, const std::string& name);

// What differs from the golden layouts, one line for each; nothing when all is as it must be.
std::vector<std::string> Differences(const SAnswer& layouts, const SAbi& abi);

} // namespace QsTest
