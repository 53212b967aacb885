#include "stimhost/ProgressLine.h"

#include "platform/Process.h"

#include <cstdio>

namespace Stimhost {

CProgressLine::~CProgressLine()
{
    if (!m_shown)
        return;
    std::fputs("\r\x1b[K", stderr);
    std::fflush(stderr);
}

void CProgressLine::Show(const std::string& text)
{
    if (!QsPlatform::StderrIsTerminal())
        return;
    m_shown = true;
    std::fputs(("\r" + text + "\x1b[K").c_str(), stderr);
    std::fflush(stderr);
}

} // namespace Stimhost
