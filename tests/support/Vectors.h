// Reader of tests/support/vectors.json, the reference values.
#pragma once

#include <rapidjson/document.h>

#include <string>
#include <vector>

namespace QsTest {

using Json = rapidjson::Value;

// The vector of that id ("wait-001"): its members "function", "name", "input", "output". Throws std::runtime_error,
// which fails the test, when the file cannot be read or holds no such vector.
const Json& Vector(const std::string& id);

// Every vector whose member "function" is `function`, in the order of the file. Throws when there is none, so that a
// loop over the result cannot pass empty.
std::vector<const Json*> VectorsOf(const std::string& function);

// Log texts, as printf-style formats; "\\n" and "\\t" are read as a newline and a tab character.
std::vector<std::wstring> Texts();

// Member of an object; throws when it is missing, where RapidJSON would end the process.
const Json& Member(const Json& object, const char* name);

// A number, also one that the file spells "inf", "-inf" or "nan".
double ToDouble(const Json& value);
// Text in UTF-8, as wide text.
std::wstring ToWide(const Json& value);

} // namespace QsTest
