// The graphics-capture adapter through Wine. Wine has no Windows.Graphics.Capture
// runtime: the contract test says no and activating a capture item fails with
// "class not registered". That is the failure path a system without the
// runtime takes, and the capture logic turns it into its
// "cannot support" state; here the adapter's side of it runs for real.
//
// The objects the adapter hands to the runtime (the list of capability names,
// completion handlers) are plain COM objects: they are driven here the way
// the runtime drives them, with Wine's own string functions underneath.

#include "ResultCodes.h"
#include "ifaces/GraphicsCapture.h"
#include "wgc/WgcAbi.h"
#include "wgc/WgcComObject.h"
#include "wgc/WgcGraphicsCapture.h"
#include "wgc/WgcRuntime.h"
#include "wgc/WgcStringIterable.h"
#include "win32/WindowsSdkCompat.h"

#include <gtest/gtest.h>
#include <wrl/client.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Orvanta;
using Microsoft::WRL::ComPtr;

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

/// The text of a string the test received and now owns.
std::string take(HSTRING string)
{
    Wgc::HString owned;
    *owned.put() = string;
    return owned.toUtf8();
}

ComPtr<Wgc::Abi::IIterableString> iterableOf(const std::vector<std::string>& texts)
{
    ComPtr<Wgc::Abi::IIterableString> iterable;
    EXPECT_EQ(Wgc::StringIterable::create(texts, iterable), S_OK);
    return iterable;
}

ComPtr<Wgc::Abi::IIteratorString> firstOf(Wgc::Abi::IIterableString* iterable)
{
    ComPtr<Wgc::Abi::IIteratorString> iterator;
    EXPECT_EQ(iterable->First(iterator.GetAddressOf()), S_OK);
    return iterator;
}

/// Every string an iterator yields from where it stands, walked the way the
/// runtime walks it: Current and MoveNext while HasCurrent.
std::vector<std::string> walk(Wgc::Abi::IIteratorString* iterator)
{
    std::vector<std::string> texts;
    Wgc::Abi::Boolean hasCurrent = 0;
    EXPECT_EQ(iterator->get_HasCurrent(&hasCurrent), S_OK);
    while (hasCurrent) {
        HSTRING current = nullptr;
        EXPECT_EQ(iterator->get_Current(&current), S_OK);
        texts.push_back(take(current));
        EXPECT_EQ(iterator->MoveNext(&hasCurrent), S_OK);
    }
    return texts;
}

const std::vector<std::string> CaptureCapabilities {"graphicsCaptureWithoutBorder", "graphicsCaptureProgrammatic"};

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

TEST(WgcGraphicsCapture, CapabilityRequestFailsWithClassNotRegisteredAndNeverCompletes)
{
    ComApartment apartment;
    // The code comes from Wine's own activation function, not from the
    // adapter's stand-in for a system without the runtime.
    ASSERT_NE(Wgc::Runtime::instance().getActivationFactory, nullptr);

    Wgc::WgcGraphicsCapture system;
    auto calls = std::make_shared<int>(0);
    const long result = system.requestCapabilityAccess(CaptureCapabilities, [calls](int) { ++*calls; });

    // Wine's RoGetActivationFactory looks the class up among the registered
    // runtime classes and finds no AppCapability there, so activating its
    // statics fails as on a system older than the capability API.
    EXPECT_EQ(result, REGDB_E_CLASSNOTREG);
    EXPECT_EQ(*calls, 0);
    // Nothing kept the handler: no later completion can call it.
    EXPECT_EQ(calls.use_count(), 1);
    // Nor was any list of names left behind.
    EXPECT_EQ(Wgc::StringIterable::liveObjects(), 0);
}

TEST(WgcGraphicsCapture, BorderlessRequestFailsWithClassNotRegisteredAndNeverCompletes)
{
    ComApartment apartment;
    Wgc::WgcGraphicsCapture system;
    auto calls = std::make_shared<int>(0);
    EXPECT_EQ(system.requestBorderlessAccess([calls](int) { ++*calls; }), REGDB_E_CLASSNOTREG);
    EXPECT_EQ(*calls, 0);
    EXPECT_EQ(calls.use_count(), 1);
}

TEST(WgcStringIterable, WalksTheNamesInOrder)
{
    ComApartment apartment;
    {
        ComPtr<Wgc::Abi::IIterableString> iterable = iterableOf(CaptureCapabilities);
        ComPtr<Wgc::Abi::IIteratorString> iterator = firstOf(iterable.Get());

        Wgc::Abi::Boolean hasCurrent = 0;
        ASSERT_EQ(iterator->get_HasCurrent(&hasCurrent), S_OK);
        EXPECT_EQ(hasCurrent, 1);
        HSTRING current = nullptr;
        ASSERT_EQ(iterator->get_Current(&current), S_OK);
        EXPECT_EQ(take(current), "graphicsCaptureWithoutBorder");
        // Current doesn't move.
        ASSERT_EQ(iterator->get_Current(&current), S_OK);
        EXPECT_EQ(take(current), "graphicsCaptureWithoutBorder");

        ASSERT_EQ(iterator->MoveNext(&hasCurrent), S_OK);
        EXPECT_EQ(hasCurrent, 1);
        ASSERT_EQ(iterator->get_Current(&current), S_OK);
        EXPECT_EQ(take(current), "graphicsCaptureProgrammatic");

        ASSERT_EQ(iterator->MoveNext(&hasCurrent), S_OK);
        EXPECT_EQ(hasCurrent, 0);
        ASSERT_EQ(iterator->get_HasCurrent(&hasCurrent), S_OK);
        EXPECT_EQ(hasCurrent, 0);
    }
    EXPECT_EQ(Wgc::StringIterable::liveObjects(), 0);
}

TEST(WgcStringIterable, PastTheEndCurrentFailsAndMoveNextStaysThere)
{
    ComApartment apartment;
    {
        ComPtr<Wgc::Abi::IIteratorString> iterator = firstOf(iterableOf({"one"}).Get());
        Wgc::Abi::Boolean hasCurrent = 1;
        ASSERT_EQ(iterator->MoveNext(&hasCurrent), S_OK);
        EXPECT_EQ(hasCurrent, 0);

        HSTRING current = reinterpret_cast<HSTRING>(1);
        EXPECT_EQ(iterator->get_Current(&current), Wgc::OutOfBounds);
        EXPECT_EQ(current, nullptr);

        hasCurrent = 1;
        EXPECT_EQ(iterator->MoveNext(&hasCurrent), S_OK);
        EXPECT_EQ(hasCurrent, 0);
        EXPECT_EQ(iterator->get_Current(&current), Wgc::OutOfBounds);
    }
    EXPECT_EQ(Wgc::StringIterable::liveObjects(), 0);
}

TEST(WgcStringIterable, EmptyListHasNoCurrent)
{
    ComApartment apartment;
    {
        ComPtr<Wgc::Abi::IIteratorString> iterator = firstOf(iterableOf({}).Get());
        Wgc::Abi::Boolean hasCurrent = 1;
        ASSERT_EQ(iterator->get_HasCurrent(&hasCurrent), S_OK);
        EXPECT_EQ(hasCurrent, 0);
        HSTRING current = nullptr;
        EXPECT_EQ(iterator->get_Current(&current), Wgc::OutOfBounds);
        UINT32 actual = 7;
        HSTRING items[2] = {};
        EXPECT_EQ(iterator->GetMany(2, items, &actual), S_OK);
        EXPECT_EQ(actual, 0u);
    }
    EXPECT_EQ(Wgc::StringIterable::liveObjects(), 0);
}

TEST(WgcStringIterable, EveryFirstStartsAFreshWalk)
{
    ComApartment apartment;
    {
        ComPtr<Wgc::Abi::IIterableString> iterable = iterableOf(CaptureCapabilities);
        ComPtr<Wgc::Abi::IIteratorString> first = firstOf(iterable.Get());
        EXPECT_EQ(walk(first.Get()), CaptureCapabilities);

        // The exhausted iterator doesn't affect the next one.
        ComPtr<Wgc::Abi::IIteratorString> second = firstOf(iterable.Get());
        EXPECT_NE(first.Get(), second.Get());
        EXPECT_EQ(walk(second.Get()), CaptureCapabilities);
        EXPECT_EQ(walk(first.Get()), std::vector<std::string>());
    }
    EXPECT_EQ(Wgc::StringIterable::liveObjects(), 0);
}

TEST(WgcStringIterable, GetManyFillsNoMoreThanItsCapacity)
{
    ComApartment apartment;
    {
        ComPtr<Wgc::Abi::IIteratorString> iterator = firstOf(iterableOf({"a", "b", "c"}).Get());
        HSTRING sentinel = reinterpret_cast<HSTRING>(0x5eed);
        HSTRING items[3] = {sentinel, sentinel, sentinel};

        UINT32 actual = 0;
        ASSERT_EQ(iterator->GetMany(2, items, &actual), S_OK);
        ASSERT_EQ(actual, 2u);
        EXPECT_EQ(take(items[0]), "a");
        EXPECT_EQ(take(items[1]), "b");
        EXPECT_EQ(items[2], sentinel);

        // GetMany moved the iterator past what it gave.
        HSTRING current = nullptr;
        ASSERT_EQ(iterator->get_Current(&current), S_OK);
        EXPECT_EQ(take(current), "c");

        items[0] = items[1] = sentinel;
        ASSERT_EQ(iterator->GetMany(2, items, &actual), S_OK);
        ASSERT_EQ(actual, 1u);
        EXPECT_EQ(take(items[0]), "c");
        EXPECT_EQ(items[1], sentinel);

        ASSERT_EQ(iterator->GetMany(2, items, &actual), S_OK);
        EXPECT_EQ(actual, 0u);
        Wgc::Abi::Boolean hasCurrent = 1;
        ASSERT_EQ(iterator->get_HasCurrent(&hasCurrent), S_OK);
        EXPECT_EQ(hasCurrent, 0);
    }
    EXPECT_EQ(Wgc::StringIterable::liveObjects(), 0);
}

TEST(WgcStringIterable, GetManyOfNothingNeedsNoBuffer)
{
    ComApartment apartment;
    {
        ComPtr<Wgc::Abi::IIteratorString> iterator = firstOf(iterableOf({"a"}).Get());
        UINT32 actual = 7;
        ASSERT_EQ(iterator->GetMany(0, nullptr, &actual), S_OK);
        EXPECT_EQ(actual, 0u);
        EXPECT_EQ(iterator->GetMany(1, nullptr, &actual), E_POINTER);
        EXPECT_EQ(iterator->GetMany(1, nullptr, nullptr), E_POINTER);
        // Nothing moved.
        HSTRING current = nullptr;
        ASSERT_EQ(iterator->get_Current(&current), S_OK);
        EXPECT_EQ(take(current), "a");
    }
    EXPECT_EQ(Wgc::StringIterable::liveObjects(), 0);
}

TEST(WgcStringIterable, StringsHandedOutAreCopies)
{
    ComApartment apartment;
    {
        ComPtr<Wgc::Abi::IIteratorString> iterator = firstOf(iterableOf({"graphicsCaptureProgrammatic"}).Get());
        HSTRING first = nullptr;
        HSTRING second = nullptr;
        ASSERT_EQ(iterator->get_Current(&first), S_OK);
        ASSERT_EQ(iterator->get_Current(&second), S_OK);
        // Deleting one copy leaves the list and the other copy intact.
        EXPECT_EQ(take(first), "graphicsCaptureProgrammatic");
        EXPECT_EQ(take(second), "graphicsCaptureProgrammatic");
        HSTRING third = nullptr;
        ASSERT_EQ(iterator->get_Current(&third), S_OK);
        EXPECT_EQ(take(third), "graphicsCaptureProgrammatic");
    }
    EXPECT_EQ(Wgc::StringIterable::liveObjects(), 0);
}

TEST(WgcStringIterable, NamesKeepTheirUtf8Text)
{
    ComApartment apartment;
    {
        const std::vector<std::string> names {"caf\xc3\xa9", "", "\xe6\x8d\x95\xe8\x8e\xb7"};
        ComPtr<Wgc::Abi::IIteratorString> iterator = firstOf(iterableOf(names).Get());
        EXPECT_EQ(walk(iterator.Get()), names);
    }
    EXPECT_EQ(Wgc::StringIterable::liveObjects(), 0);
}

TEST(WgcStringIterable, IteratorsKeepTheListAliveAndReferencesGoBackToZero)
{
    ComApartment apartment;
    ASSERT_EQ(Wgc::StringIterable::liveObjects(), 0);

    ComPtr<Wgc::Abi::IIterableString> iterable = iterableOf(CaptureCapabilities);
    EXPECT_EQ(Wgc::StringIterable::liveObjects(), 1);
    ComPtr<Wgc::Abi::IIteratorString> first = firstOf(iterable.Get());
    ComPtr<Wgc::Abi::IIteratorString> second = firstOf(iterable.Get());
    EXPECT_EQ(Wgc::StringIterable::liveObjects(), 3);

    // The caller lets go of the list first, as the runtime may.
    EXPECT_EQ(iterable.Reset(), 2u); // one reference per iterator
    EXPECT_EQ(Wgc::StringIterable::liveObjects(), 3);
    EXPECT_EQ(walk(first.Get()), CaptureCapabilities);

    EXPECT_EQ(first.Reset(), 0u);
    EXPECT_EQ(Wgc::StringIterable::liveObjects(), 2);
    EXPECT_EQ(walk(second.Get()), CaptureCapabilities);
    EXPECT_EQ(second.Reset(), 0u);
    EXPECT_EQ(Wgc::StringIterable::liveObjects(), 0);
}

TEST(WgcStringIterable, AnswersAsAnAgileInspectable)
{
    ComApartment apartment;
    {
        ComPtr<Wgc::Abi::IIterableString> iterable = iterableOf(CaptureCapabilities);
        ComPtr<IUnknown> unknown;
        for (const GUID& iid : {Wgc::Abi::IID_Unknown, Wgc::Abi::IID_Inspectable, Wgc::Abi::IID_IAgileObject,
                 Wgc::Abi::IID_IIterableString}) {
            EXPECT_EQ(iterable->QueryInterface(iid, reinterpret_cast<void**>(unknown.ReleaseAndGetAddressOf())), S_OK);
            EXPECT_NE(unknown, nullptr);
        }
        void* none = reinterpret_cast<void*>(1);
        EXPECT_EQ(iterable->QueryInterface(Wgc::Abi::IID_IIteratorString, &none), E_NOINTERFACE);
        EXPECT_EQ(none, nullptr);
        EXPECT_EQ(iterable->QueryInterface(Wgc::Abi::IID_IIterableString, nullptr), E_POINTER);

        ULONG count = 0;
        IID* iids = nullptr;
        ASSERT_EQ(iterable->GetIids(&count, &iids), S_OK);
        ASSERT_EQ(count, 1u);
        EXPECT_TRUE(IsEqualGUID(iids[0], Wgc::Abi::IID_IIterableString));
        CoTaskMemFree(iids);

        HSTRING name = nullptr;
        ASSERT_EQ(iterable->GetRuntimeClassName(&name), S_OK);
        EXPECT_EQ(take(name), "Windows.Foundation.Collections.IIterable`1<String>");
        TrustLevel trust = FullTrust;
        ASSERT_EQ(iterable->GetTrustLevel(&trust), S_OK);
        EXPECT_EQ(trust, BaseTrust);

        ComPtr<Wgc::Abi::IIteratorString> iterator = firstOf(iterable.Get());
        EXPECT_EQ(iterator->QueryInterface(
                      Wgc::Abi::IID_IIteratorString, reinterpret_cast<void**>(unknown.ReleaseAndGetAddressOf())),
            S_OK);
        EXPECT_EQ(iterator->QueryInterface(
                      Wgc::Abi::IID_IAgileObject, reinterpret_cast<void**>(unknown.ReleaseAndGetAddressOf())),
            S_OK);
        ASSERT_EQ(iterator->GetIids(&count, &iids), S_OK);
        ASSERT_EQ(count, 1u);
        EXPECT_TRUE(IsEqualGUID(iids[0], Wgc::Abi::IID_IIteratorString));
        CoTaskMemFree(iids);
    }
    EXPECT_EQ(Wgc::StringIterable::liveObjects(), 0);
}

using MapCompletion = Wgc::AsyncCompletion<Wgc::Abi::IAccessStatusMapCompletedHandler,
    Wgc::Abi::IAsyncOperationAccessStatusMap, Wgc::Abi::IID_AccessStatusMapCompletedHandler>;

TEST(WgcAsyncCompletion, InvokeHandsOperationAndStatusOn)
{
    ComApartment apartment;
    Wgc::Abi::IAsyncOperationAccessStatusMap* seenOperation = nullptr;
    int seenStatus = -1;
    int calls = 0;
    ComPtr<Wgc::Abi::IAccessStatusMapCompletedHandler> handler
        = MapCompletion::create([&](Wgc::Abi::IAsyncOperationAccessStatusMap* operation, Wgc::Abi::AsyncStatus status) {
              seenOperation = operation;
              seenStatus = int(status);
              ++calls;
          });
    // The handler only passes the operation on, so any address stands in for one.
    int standIn = 0;
    auto* operation = reinterpret_cast<Wgc::Abi::IAsyncOperationAccessStatusMap*>(&standIn);
    EXPECT_EQ(handler->Invoke(operation, Wgc::Abi::AsyncCanceled), S_OK);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(seenStatus, int(Wgc::Abi::AsyncCanceled));
    EXPECT_EQ(seenOperation, operation);

    ComPtr<IUnknown> agile;
    EXPECT_EQ(
        handler->QueryInterface(Wgc::Abi::IID_IAgileObject, reinterpret_cast<void**>(agile.GetAddressOf())), S_OK);
    ComPtr<IUnknown> same;
    EXPECT_EQ(handler->QueryInterface(
                  Wgc::Abi::IID_AccessStatusMapCompletedHandler, reinterpret_cast<void**>(same.GetAddressOf())),
        S_OK);
    // A delegate is no IInspectable.
    void* inspectable = nullptr;
    EXPECT_EQ(handler->QueryInterface(Wgc::Abi::IID_Inspectable, &inspectable), E_NOINTERFACE);
}

TEST(WgcAsyncCompletion, AThrowingCallbackStaysOnThisSide)
{
    ComApartment apartment;
    ComPtr<Wgc::Abi::IAccessStatusMapCompletedHandler> handler = MapCompletion::create(
        [](Wgc::Abi::IAsyncOperationAccessStatusMap*, Wgc::Abi::AsyncStatus) { throw std::runtime_error("no"); });
    EXPECT_EQ(handler->Invoke(nullptr, Wgc::Abi::AsyncCompleted), E_FAIL);
}

TEST(WgcAsyncCompletion, ReleasingTheLastReferenceDestroysTheCallback)
{
    ComApartment apartment;
    auto captured = std::make_shared<int>(0);
    ComPtr<Wgc::Abi::IAccessStatusMapCompletedHandler> handler
        = MapCompletion::create([captured](Wgc::Abi::IAsyncOperationAccessStatusMap*, Wgc::Abi::AsyncStatus) {});
    EXPECT_EQ(captured.use_count(), 2);
    handler->AddRef();
    EXPECT_EQ(handler->Release(), 1u);
    EXPECT_EQ(handler.Reset(), 0u);
    EXPECT_EQ(captured.use_count(), 1);
}
