// A catalogue of translations while the object lives.
#pragma once

#include "standalone/HostControl.h"
#include "tests/support/TemporaryFolder.h"

namespace QsTest {

class CTranslations
{
public:
    explicit CTranslations(const std::string& json)
    {
        std::string error;
        if (!QsStandalone::LoadTranslations(m_folder.Write("translations.json", json), error))
            throw std::runtime_error(error);
    }
    ~CTranslations() { QsStandalone::ClearTranslations(); }
    CTranslations(const CTranslations&) = delete;
    CTranslations& operator=(const CTranslations&) = delete;

private:
    CTemporaryFolder m_folder;
};

} // namespace QsTest
