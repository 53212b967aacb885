// How the tables of operations and the shared records are laid out: what hosts and other plug-ins rely on.
//
// Written down by hand, from the description of the interface. A compiler's output is compared with it, and never the
// source of it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace QsTest {

struct SGoldenSlot
{
    std::string operation; // "destructor" stands for all that an ABI makes of it
    bool hasBody;
};

struct SGoldenTable
{
    std::string interface; // whose operations these are
    std::string example;   // class that has the table, of tests/abi/LaidOut.cpp
    std::vector<SGoldenSlot> slots;
    // It derives from IQsInterface virtually. In the ABI of the host's compiler the operations of a virtual base have a
    // table of their own; in the other one they stand in front.
    bool afterRoot = false;
    // Has more bases with operations. The other ABI repeats those that the class overrides behind its own.
    bool hasMoreBases = false;
};

struct SGoldenField
{
    std::string name;
    std::string type;
    std::size_t offset; // [byte]
};

struct SGoldenRecord
{
    std::string name;
    std::size_t size;      // [byte]
    std::size_t alignment; // [byte]
    std::vector<SGoldenField> fields;
};

// Direct bases of a class that have tables of their own, in their order in the object.
struct SGoldenBases
{
    std::string name;
    std::vector<std::string> bases;
};

const SGoldenTable& GoldenRoot();
const std::vector<SGoldenTable>& GoldenTables();
const std::vector<SGoldenRecord>& GoldenRecords();
const std::vector<SGoldenBases>& GoldenBasesOfClasses();

} // namespace QsTest
