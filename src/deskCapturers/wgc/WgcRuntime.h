#pragma once

// The few functions of the Windows Runtime that the capture adapter needs,
// and an owning HSTRING on top of them. They are looked up at run time, not
// linked: systems without the runtime still load the library, and every call
// then fails cleanly.

#include <windows.h>

#include <dxgi.h>
#include <inspectable.h>

#include <string>
#include <utility>

namespace Orvanta {
namespace Wgc {

/// E_BOUNDS of newer SDKs: a collection was read past its end.
inline constexpr HRESULT OutOfBounds = HRESULT(0x8000000BL);

/// The runtime's activation and string functions, looked up once: they are
/// missing on systems without the Windows Runtime.
class Runtime
{
public:
    using GetActivationFactory = HRESULT(WINAPI*)(HSTRING, REFIID, void**);
    using CreateString = HRESULT(WINAPI*)(LPCWSTR, UINT32, HSTRING*);
    using DuplicateString = HRESULT(WINAPI*)(HSTRING, HSTRING*);
    using DeleteString = HRESULT(WINAPI*)(HSTRING);
    using StringBuffer = LPCWSTR(WINAPI*)(HSTRING, UINT32*);
    using CreateDeviceFromDxgi = HRESULT(WINAPI*)(IDXGIDevice*, IInspectable**);

    static const Runtime& instance()
    {
        static const Runtime runtime;
        return runtime;
    }

    /// What a call of a missing function gives.
    static HRESULT missing()
    {
        return HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
    }

    GetActivationFactory getActivationFactory = nullptr;
    CreateString createString = nullptr;
    DuplicateString duplicateString = nullptr;
    DeleteString deleteString = nullptr;
    StringBuffer stringBuffer = nullptr;
    CreateDeviceFromDxgi createDeviceFromDxgi = nullptr;

private:
    Runtime()
    {
        if (HMODULE combase = ::LoadLibraryW(L"combase.dll")) {
            getActivationFactory = procedure<GetActivationFactory>(combase, "RoGetActivationFactory");
            createString = procedure<CreateString>(combase, "WindowsCreateString");
            duplicateString = procedure<DuplicateString>(combase, "WindowsDuplicateString");
            deleteString = procedure<DeleteString>(combase, "WindowsDeleteString");
            stringBuffer = procedure<StringBuffer>(combase, "WindowsGetStringRawBuffer");
        }
        if (HMODULE d3d11 = ::LoadLibraryW(L"d3d11.dll"))
            createDeviceFromDxgi = procedure<CreateDeviceFromDxgi>(d3d11, "CreateDirect3D11DeviceFromDXGIDevice");
    }

    /// @p name of @p module as a function of type T, or null.
    template <typename T> static T procedure(HMODULE module, const char* name)
    {
        // Through the generic function type: GetProcAddress knows no signatures.
        return reinterpret_cast<T>(reinterpret_cast<void (*)()>(::GetProcAddress(module, name)));
    }
};

/**
 * An owned HSTRING. The null string is the runtime's empty string, so a
 * default-constructed HString is valid and empty. result() keeps the code of
 * a failed creation; the string is null then.
 */
class HString
{
public:
    HString() = default;

    explicit HString(const std::wstring& text)
    {
        const Runtime& runtime = Runtime::instance();
        if (runtime.createString)
            m_result = runtime.createString(text.c_str(), UINT32(text.size()), &m_string);
        else
            m_result = Runtime::missing();
    }

    /// A string of the runtime from UTF-8 text.
    static HString fromUtf8(const std::string& text)
    {
        std::wstring wide;
        if (!text.empty()) {
            const int length = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), int(text.size()), nullptr, 0);
            if (length > 0) {
                wide.resize(std::size_t(length));
                ::MultiByteToWideChar(CP_UTF8, 0, text.data(), int(text.size()), &wide[0], length);
            }
        }
        return HString(wide);
    }

    /// A copy of @p string, which the caller keeps.
    static HString duplicate(HSTRING string)
    {
        HString copy;
        const Runtime& runtime = Runtime::instance();
        if (runtime.duplicateString)
            copy.m_result = runtime.duplicateString(string, &copy.m_string);
        else
            copy.m_result = Runtime::missing();
        return copy;
    }

    ~HString()
    {
        reset();
    }

    HString(HString&& other) noexcept
        : m_string(std::exchange(other.m_string, nullptr))
        , m_result(std::exchange(other.m_result, S_OK))
    {
    }

    HString& operator=(HString&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_string = std::exchange(other.m_string, nullptr);
            m_result = std::exchange(other.m_result, S_OK);
        }
        return *this;
    }

    HString(const HString&) = delete;
    HString& operator=(const HString&) = delete;

    HSTRING get() const
    {
        return m_string;
    }

    /// The address to receive a string that this object then owns.
    HSTRING* put()
    {
        reset();
        return &m_string;
    }

    /// Gives up ownership: the caller deletes the string.
    HSTRING release()
    {
        return std::exchange(m_string, nullptr);
    }

    long result() const
    {
        return m_result;
    }

    std::string toUtf8() const
    {
        const Runtime& runtime = Runtime::instance();
        if (!m_string || !runtime.stringBuffer)
            return std::string();
        UINT32 length = 0;
        const wchar_t* text = runtime.stringBuffer(m_string, &length);
        std::string utf8;
        if (!text || length == 0)
            return utf8;
        const int bytes = ::WideCharToMultiByte(CP_UTF8, 0, text, int(length), nullptr, 0, nullptr, nullptr);
        if (bytes <= 0)
            return utf8;
        utf8.resize(std::size_t(bytes));
        ::WideCharToMultiByte(CP_UTF8, 0, text, int(length), &utf8[0], bytes, nullptr, nullptr);
        return utf8;
    }

private:
    void reset()
    {
        if (m_string && Runtime::instance().deleteString)
            Runtime::instance().deleteString(m_string);
        m_string = nullptr;
    }

    HSTRING m_string = nullptr;
    long m_result = S_OK;
};

} // namespace Wgc
} // namespace Orvanta
