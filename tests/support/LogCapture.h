// The diagnostic log in memory while the object lives.
#pragma once

#include "standalone/DiagnosticLog.h"

#include <string>
#include <vector>

namespace QsTest {

class CLogCapture
{
public:
    explicit CLogCapture(QsStandalone::ELogLevel level = QsStandalone::ELogLevel::Detailed)
    {
        QsStandalone::CQsDiagnosticLog::SetLevel(level);
        Forget();
    }
    ~CLogCapture()
    {
        QsStandalone::CQsDiagnosticLog::ToMemory(false);
        QsStandalone::CQsDiagnosticLog::SetLevel(QsStandalone::ELogLevel::Normal);
    }
    CLogCapture(const CLogCapture&) = delete;
    CLogCapture& operator=(const CLogCapture&) = delete;

    void Forget()
    {
        QsStandalone::CQsDiagnosticLog::ToMemory(false);
        QsStandalone::CQsDiagnosticLog::ToMemory(true);
    }

    // Texts of that source unit, in order.
    std::vector<std::wstring> Of(const wchar_t* unit) const
    {
        std::vector<std::wstring> texts;
        for (const QsStandalone::SLogLine& line : QsStandalone::CQsDiagnosticLog::MemoryLines())
            if (line.unit == unit)
                texts.push_back(line.text.Std());
        return texts;
    }
};

} // namespace QsTest
