// Text and files: numbers, JSON and atomic writing, for every command alike.
#pragma once

#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>

#include <string>

class CQsStringW;

namespace Stimhost {

// Exit codes of the program.
enum EExit : int
{
    eExitDone = 0,
    eExitFailed = 1,  // a device or a stimulation failed, or a light was on at the end
    eExitBadUse = 2,  // bad usage, bad input, or an output file that cannot be written
    eExitInternal = 3 // an internal error, or the module is missing
};

// Fixed decimals, whatever the locale; "-" for a value that is not a number.
std::string Number(double value, int decimals = 3);
std::string Exact(double value); // the shortest text that reads back as the same value; "-" likewise
std::string Padded(const std::string& text, std::size_t width, bool right = false); // counts characters of UTF-8
std::string ToUtf8(const CQsStringW& text);
CQsStringW FromUtf8(const std::string& text);

void Print(const std::string& text); // to stdout
// The exit code of a program whose output may have been lost: then one line says so, and exit code 0 becomes 2.
int CodeAfterOutput(int code);
// The account of a run as it goes on: to stdout, unless the result is wanted as JSON.
void Say(const std::string& text);
void KeepSilent();
// One line on stderr, with the program's name before it.
void Complain(const std::string& line);

// Replaces the file as a whole or leaves it as it was; a pipe or a device is written into. False, with
// one line, when it cannot be written.
bool WriteWholeFile(const std::string& path, const std::string& text, std::string& error);

// The same, with the line on stderr.
bool WriteOrComplain(const std::string& path, const std::string& text);

// Writer of one JSON document, three decimals for times, null for what is not a finite number.
class CJson
{
public:
    CJson();

    CJson& Object(const char* key = nullptr);
    CJson& EndObject();
    CJson& Array(const char* key = nullptr);
    CJson& EndArray();

    CJson& Text(const char* key, const std::string& value);
    CJson& Integer(const char* key, long long value);
    CJson& Flag(const char* key, bool value);
    CJson& Time(const char* key, double ms);
    CJson& Real(const char* key, double value); // every digit
    CJson& Reals(const char* key, const double* values, std::size_t count);
    CJson& Pair(const char* key, double x, double y);
    CJson& Element(const std::string& value);
    CJson& Element(double ms);
    CJson& Whole(long long value); // as an element
    CJson& Null(const char* key);

    std::string Take(); // the document with a line end

private:
    void Key(const char* key);

    rapidjson::StringBuffer m_text;
    rapidjson::PrettyWriter<rapidjson::StringBuffer> m_writer;
};

} // namespace Stimhost
