// Run-length-coded pictures.
#include "host/QsPicture.h"
#include "host/QsSystem.h"

#include <exception>

int CQsRLEPicBufAPI::Copy(SQsRLEPicBuf& destination, const SQsRLEPicBuf& source)
{
    try
    {
        SQsRLEPicBuf copy(source);
        destination = std::move(copy);
        return QS_OK;
    }
    catch (const std::exception&) // no memory: the destination keeps what it had
    {
        return QS_ERR_FAIL;
    }
}
