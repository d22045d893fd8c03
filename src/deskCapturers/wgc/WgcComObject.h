#pragma once

// The objects that the capture adapter implements for the runtime to call:
// completion handlers and collections passed as arguments.

#include "wgc/WgcAbi.h"
#include "wgc/WgcRuntime.h"

#include <objbase.h>
#include <wrl/client.h>

#include <atomic>
#include <functional>
#include <type_traits>
#include <utility>

namespace Orvanta {
namespace Wgc {

/**
 * Takes over the one reference that a new @p object holds. ComPtr::Attach
 * would do, were it not that mingw-w64's adds a reference of its own, which
 * then leaks.
 */
template <typename Interface> Microsoft::WRL::ComPtr<Interface> adopt(Interface* object)
{
    Microsoft::WRL::ComPtr<Interface> owner;
    *owner.ReleaseAndGetAddressOf() = object;
    return owner;
}

/**
 * The IUnknown part of an object that implements one interface of the
 * runtime, @p Interface with the IID @p InterfaceId.
 *
 * The object is agile: the runtime calls it on threads of its own, and
 * answering IAgileObject tells it to call the object directly instead of
 * marshalling the calls back to the creator's apartment. References are
 * counted atomically for the same reason. A new object holds one reference,
 * which its creator takes over (adopt()).
 */
template <typename Interface, const GUID& InterfaceId> class AgileObject : public Interface
{
public:
    AgileObject(const AgileObject&) = delete;
    AgileObject& operator=(const AgileObject&) = delete;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** object) override
    {
        if (!object)
            return E_POINTER;
        const bool inspectable = std::is_base_of<IInspectable, Interface>::value;
        if (IsEqualGUID(iid, InterfaceId) || IsEqualGUID(iid, Abi::IID_Unknown)
            || IsEqualGUID(iid, Abi::IID_IAgileObject) || (inspectable && IsEqualGUID(iid, Abi::IID_Inspectable))) {
            // IAgileObject has no methods of its own: any IUnknown of the object answers for it.
            *object = static_cast<Interface*>(this);
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }

    ULONG STDMETHODCALLTYPE AddRef() override
    {
        return ++m_references;
    }

    ULONG STDMETHODCALLTYPE Release() override
    {
        const ULONG left = --m_references;
        if (left == 0)
            delete this;
        return left;
    }

protected:
    AgileObject() = default;
    // Virtual so that Release() destroys the whole object. The slot comes
    // after the interface's own, so the vtable the runtime sees is unchanged.
    virtual ~AgileObject() = default;

private:
    std::atomic<ULONG> m_references {1};
};

/**
 * An AgileObject whose interface derives from IInspectable. It names itself
 * by the interface it implements, as objects without a runtime class do.
 */
template <typename Interface, const GUID& InterfaceId>
class AgileInspectable : public AgileObject<Interface, InterfaceId>
{
public:
    HRESULT STDMETHODCALLTYPE GetIids(ULONG* count, IID** iids) override
    {
        if (!count || !iids)
            return E_POINTER;
        *count = 0;
        *iids = static_cast<IID*>(::CoTaskMemAlloc(sizeof(IID)));
        if (!*iids)
            return E_OUTOFMEMORY;
        (*iids)[0] = InterfaceId;
        *count = 1;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE GetRuntimeClassName(HSTRING* className) override
    {
        if (!className)
            return E_POINTER;
        HString name(m_className);
        *className = name.release();
        return name.result();
    }

    HRESULT STDMETHODCALLTYPE GetTrustLevel(TrustLevel* trustLevel) override
    {
        if (!trustLevel)
            return E_POINTER;
        *trustLevel = BaseTrust;
        return S_OK;
    }

protected:
    explicit AgileInspectable(const wchar_t* className)
        : m_className(className)
    {
    }

private:
    const wchar_t* m_className;
};

/**
 * The completion handler of an asynchronous operation of the runtime:
 * @p Handler is the AsyncOperationCompletedHandler of @p Operation. Invoke
 * runs on whichever thread completes the operation and hands the operation
 * and its status to the callback there.
 */
template <typename Handler, typename Operation, const GUID& HandlerId>
class AsyncCompletion final : public AgileObject<Handler, HandlerId>
{
public:
    using Callback = std::function<void(Operation* operation, Abi::AsyncStatus status)>;

    static Microsoft::WRL::ComPtr<Handler> create(Callback callback)
    {
        return adopt<Handler>(new AsyncCompletion(std::move(callback)));
    }

    HRESULT STDMETHODCALLTYPE Invoke(Operation* operation, Abi::AsyncStatus status) override
    {
        if (!m_callback)
            return S_OK;
        // No exception may cross into the runtime's frames.
        try {
            m_callback(operation, status);
        } catch (...) {
            return E_FAIL;
        }
        return S_OK;
    }

private:
    explicit AsyncCompletion(Callback callback)
        : m_callback(std::move(callback))
    {
    }

    Callback m_callback;
};

} // namespace Wgc
} // namespace Orvanta
