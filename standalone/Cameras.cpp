// The grabber manager's cameras, and their descriptions.
#include "host/QsGrabber.h"
#include "platform/ThreadSafety.h"
#include "standalone/HostControl.h"

#include <algorithm>
#include <cstring>
#include <cwchar>

namespace {

struct SCameras
{
    struct SCamera
    {
        CQsStringW name; // when it was added
        IQsGrabberCamera* camera;
    };

    CQsMutex lock;
    std::vector<SCamera> cameras QS_GUARDED_BY(lock); // each with a reference; in the order of adding
};

// Never destroyed: threads may look for a camera until the process ends.
SCameras& Cameras()
{
    static SCameras& cameras = *new SCameras;
    return cameras;
}

template <std::size_t Size>
void CopyBounded(wchar_t (&destination)[Size], const CQsStringW& text)
{
    std::size_t count = std::wcslen(text.c_str());
    if (count > Size - 1)
    {
        count = Size - 1;
        // Where characters outside the basic plane are two units, the first one must not stay behind alone.
        const auto isHigh = [](wchar_t unit) { return (static_cast<std::uint32_t>(unit) & 0xFFFFFC00u) == 0xD800u; };
        const auto isLow = [](wchar_t unit) { return (static_cast<std::uint32_t>(unit) & 0xFFFFFC00u) == 0xDC00u; };
        if (isHigh(text.c_str()[count - 1]) && isLow(text.c_str()[count]))
            --count;
    }
    std::copy_n(text.c_str(), count, destination);
}

} // namespace

int IQsGenericProvider::CameraGet_WRP(SQsGrabberCameraDesc01& description)
{
    // Every byte, those between the members included: descriptions are compared and stored as they lie in memory.
    std::memset(&description, 0, sizeof description);
    try
    {
        CopyBounded(description.wszName, GetCameraName());
        CopyBounded(description.wszDescription, GetCameraDescription());
        CopyBounded(description.wszSerialNumber, GetSerialNumber());
        CopyBounded(description.wszFirmware, GetFirmware());
        description.uiFlags = GetCameraFlags();
        return QS_OK;
    }
    catch (...) // the provider is code of a plug-in
    {
        return QS_ERR_FAIL;
    }
}

CQsGenericProviderGrabber::~CQsGenericProviderGrabber() = default;

IQsGrabberCamera* CQsGrabberManager::FindCamera(const CQsStringW& name)
{
    SCameras& cameras = Cameras();
    const CQsScopedLock<CQsMutex> guard(cameras.lock);
    for (const SCameras::SCamera& entry : cameras.cameras)
    {
        if (entry.name == name)
        {
            CQsRTTI::AddRef(entry.camera);
            return entry.camera;
        }
    }
    return nullptr;
}

std::vector<CQsStringW> CQsGrabberManager::CameraNames()
{
    SCameras& cameras = Cameras();
    const CQsScopedLock<CQsMutex> guard(cameras.lock);
    std::vector<CQsStringW> names;
    for (const SCameras::SCamera& entry : cameras.cameras)
        names.push_back(entry.name);
    return names;
}

bool QsStandalone::AddCamera(IQsGrabberCamera* camera)
{
    if (camera == nullptr)
        return false;
    CQsStringW name = camera->GetName(); // before the lock: it is code of a plug-in
    SCameras& cameras = Cameras();
    const CQsScopedLock<CQsMutex> guard(cameras.lock);
    for (const SCameras::SCamera& entry : cameras.cameras)
        if (entry.name == name)
            return false;
    cameras.cameras.push_back({std::move(name), camera});
    CQsRTTI::AddRef(camera);
    return true;
}

void QsStandalone::RemoveCameras()
{
    std::vector<SCameras::SCamera> removed;
    {
        SCameras& cameras = Cameras();
        const CQsScopedLock<CQsMutex> guard(cameras.lock);
        removed.swap(cameras.cameras);
    }
    for (const SCameras::SCamera& entry : removed)
        CQsRTTI::Release(entry.camera);
}
