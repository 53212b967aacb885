#include "beampath/AbortAll.h"

#include "beampath/DeviceWait.h"
#include "manager/DeviceCall.h"
#include "platform/Win32.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>

namespace {

// What the threads share that abort together.
class CAbortAll
{
public:
    CAbortAll(const std::vector<IQsStimulationDevice*>& devices, std::shared_ptr<const void> keep)
        : m_keep(std::move(keep)), m_devices(devices), m_statuses(devices.size(), QS_ERR_FAIL)
    {}

    // Aborts devices that nobody has taken yet, until none is left.
    static void Help(const std::shared_ptr<CAbortAll>& all)
    {
        for (;;)
        {
            const std::size_t i = all->m_next++;
            if (i >= all->m_devices.size())
                return;
            // Whoever enters a device sees to it that somebody goes on meanwhile.
            if (i + 1 < all->m_devices.size() && !all->m_bHelpIsComing.exchange(true))
                CallForHelp(all);
            IQsStimulationDevice* const device = all->m_devices[i];
            all->m_statuses[i] =
                QsCallOr(QS_ERR_FAIL, L"StimulationAbort", __LINE__, [device] { return device->StimulationAbort(); });
            const std::lock_guard<std::mutex> lock(all->m_mutex);
            if (++all->m_done != all->m_devices.size())
                continue;
            all->m_keep.reset(); // who asked holds it too; help that comes too late must not
            all->m_changed.notify_all();
        }
    }

    std::vector<int> Statuses()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_done == m_devices.size(); });
        return m_statuses;
    }

    const CQsRegistryLock::Run run = CQsRegistryLock::RunOfCaller();

private:
    // Without help the calling thread aborts one device after the other.
    static void CallForHelp(const std::shared_ptr<CAbortAll>& all)
    {
        auto* const context = new (std::nothrow) std::shared_ptr<CAbortAll>(all);
        if (context != nullptr && QueueUserWorkItem(&Helper, context, WT_EXECUTELONGFUNCTION) == FALSE)
            delete context;
    }

    static DWORD WINAPI Helper(LPVOID context)
    {
        const std::unique_ptr<std::shared_ptr<CAbortAll>> all(static_cast<std::shared_ptr<CAbortAll>*>(context));
        const CQsRegistryLock::CWorkerScope scope((*all)->run);
        (*all)->m_bHelpIsComing = false;
        Help(*all);
        return 0;
    }

    std::shared_ptr<const void> m_keep;
    const std::vector<IQsStimulationDevice*> m_devices;
    std::atomic<std::size_t> m_next{0};
    std::atomic<bool> m_bHelpIsComing{false};
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::size_t m_done = 0;
    std::vector<int> m_statuses; // each written by the thread that took the device
};

} // namespace

std::vector<int> QsAbortAll(const std::vector<IQsStimulationDevice*>& devices, const std::shared_ptr<const void>& keep)
{
    const auto all = std::make_shared<CAbortAll>(devices, keep);
    std::vector<int> statuses;
    QsWaitForDevices(all->run,
                     [&]
                     {
                         CAbortAll::Help(all);
                         statuses = all->Statuses();
                     });
    return statuses;
}
