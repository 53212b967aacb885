// A line on the terminal that rewrites itself while a person waits.
#pragma once

#include <string>

namespace Stimhost {

// Nothing is written where stderr is no terminal. The line is gone at the end of its life.
class CProgressLine
{
public:
    CProgressLine() = default;
    ~CProgressLine();
    CProgressLine(const CProgressLine&) = delete;
    CProgressLine& operator=(const CProgressLine&) = delete;

    void Show(const std::string& text);

private:
    bool m_shown = false;
};

} // namespace Stimhost
