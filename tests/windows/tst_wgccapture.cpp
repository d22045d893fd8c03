// The graphics-capture adapter through Wine. Wine has no Windows.Graphics.Capture
// runtime: the contract test says no and activating a capture item fails with
// "class not registered". That is the failure path a system without the
// runtime takes, and the capture logic turns it into its
// "cannot support" state; here the adapter's side of it runs for real.

#include "ResultCodes.h"
#include "ifaces/GraphicsCapture.h"
#include "wgc/WgcGraphicsCapture.h"
#include "win32/WindowsSdkCompat.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace Orvanta;

namespace {

class ComApartment
{
public:
    ComApartment()
        : m_result(CoInitializeEx(nullptr, COINIT_MULTITHREADED))
    {
    }
    ~ComApartment()
    {
        if (SUCCEEDED(m_result)) {
            CoUninitialize();
        }
    }
    ComApartment(const ComApartment&) = delete;
    ComApartment& operator=(const ComApartment&) = delete;

private:
    HRESULT m_result;
};

} // namespace

TEST(WgcGraphicsCapture, PlatformFactoryGivesTheWindowsRuntimeAdapter)
{
    ComApartment apartment;
    const std::shared_ptr<Ifaces::GraphicsCaptureSystem> system = Ifaces::createPlatformGraphicsCapture();
    ASSERT_NE(system, nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<Wgc::WgcGraphicsCapture>(system), nullptr);
}

TEST(WgcGraphicsCapture, ContractIsAbsentUnderWine)
{
    ComApartment apartment;
    Wgc::WgcGraphicsCapture system;
    EXPECT_FALSE(system.isApiContractPresent("Windows.Foundation.UniversalApiContract", 8));
    EXPECT_FALSE(system.isPropertyPresent("Windows.Graphics.Capture.GraphicsCaptureSession", "IsCursorCaptureEnabled"));
}

TEST(WgcGraphicsCapture, MonitorsAreListedThroughUser32)
{
    ComApartment apartment;
    Wgc::WgcGraphicsCapture system;
    std::vector<Ifaces::MonitorEntry> monitors;
    ASSERT_GE(system.enumerateMonitors(monitors), 0);
    ASSERT_FALSE(monitors.empty());
    bool primary = false;
    for (const Ifaces::MonitorEntry& entry : monitors) {
        EXPECT_NE(entry.monitor, 0u);
        primary = primary || (entry.flags & MONITORINFOF_PRIMARY) != 0;
    }
    EXPECT_TRUE(primary);
}

TEST(WgcGraphicsCapture, ItemActivationFailsWithClassNotRegistered)
{
    ComApartment apartment;
    Wgc::WgcGraphicsCapture system;
    std::vector<Ifaces::MonitorEntry> monitors;
    ASSERT_GE(system.enumerateMonitors(monitors), 0);
    ASSERT_FALSE(monitors.empty());

    std::shared_ptr<Ifaces::CaptureItem> item;
    const long result = system.createItemForMonitor(monitors.front().monitor, item);
    EXPECT_EQ(result, REGDB_E_CLASSNOTREG);
    EXPECT_EQ(item, nullptr);
}
