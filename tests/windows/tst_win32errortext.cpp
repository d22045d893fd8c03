// The result-code texts of the Windows error-text adapter, through the real
// FormatMessageW, and the library's formatting of them.

#include "ResultCodeText.h"
#include "ResultCodes.h"
#include "win32/Win32ErrorTextSource.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

// Codes the system has no text for; the adapter answers empty and the
// formatting falls back. Wine has none for these two; neither has Windows for
// the audio one.
constexpr long kAccessLost = static_cast<long>(0x887A0026u); // DXGI_ERROR_ACCESS_LOST
constexpr long kUnsupportedFormat = static_cast<long>(0x88890008u); // AUDCLNT_E_UNSUPPORTED_FORMAT

bool endsWith(const std::wstring& text, const std::wstring& tail)
{
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

class FixedTextSource final : public Orvanta::Ifaces::ErrorTextSource
{
public:
    explicit FixedTextSource(std::wstring text)
        : m_text(std::move(text))
    {
    }
    std::wstring systemMessage(long) const override
    {
        ++calls;
        return m_text;
    }
    mutable int calls = 0;

private:
    std::wstring m_text;
};

} // namespace

TEST(Win32ErrorTextSource, LongIsThirtyTwoBitsOnWindows)
{
    // The reason the number text has to sign-extend by itself.
    static_assert(sizeof(long) == 4, "the Windows ABI has a 32-bit long");
    EXPECT_EQ(E_ACCESSDENIED, static_cast<long>(0x80070005u));
    EXPECT_LT(E_ACCESSDENIED, 0);
}

TEST(ResultCodes, WindowsNamesHaveTheCommonValues)
{
    // The shared header gives the same names on every platform; here they
    // come from the SDK and must agree with the values the logic is written for.
    EXPECT_EQ(E_FAIL, Orvanta::hresultFromBits(0x80004005u));
    EXPECT_EQ(E_NOTIMPL, Orvanta::hresultFromBits(0x80004001u));
    EXPECT_EQ(DXGI_ERROR_ACCESS_LOST, Orvanta::hresultFromBits(0x887A0026u));
    EXPECT_EQ(DXGI_ERROR_WAIT_TIMEOUT, Orvanta::hresultFromBits(0x887A0027u));
    EXPECT_EQ(AUDCLNT_E_UNSUPPORTED_FORMAT, Orvanta::hresultFromBits(0x88890008u));
    EXPECT_EQ(AUDCLNT_E_WRONG_ENDPOINT_TYPE, Orvanta::hresultFromBits(0x88890003u));
    EXPECT_EQ(AUDCLNT_S_BUFFER_EMPTY, 0x08890001);
}

TEST(Win32ErrorTextSource, KnownCodeGivesSystemSentenceWithLineEnd)
{
    const Orvanta::Win32::ErrorTextSource source;
    const std::wstring text = source.systemMessage(E_ACCESSDENIED);
    ASSERT_FALSE(text.empty());
    // The system's line end is kept, as the system gives it.
    EXPECT_TRUE(endsWith(text, L"\r\n"));
    EXPECT_NE(text.find(L"ccess"), std::wstring::npos);

    const std::wstring outOfMemory = source.systemMessage(E_OUTOFMEMORY);
    ASSERT_FALSE(outOfMemory.empty());
    EXPECT_NE(outOfMemory, text);
}

TEST(Win32ErrorTextSource, MatchesFormatMessageWord)
{
    // The adapter passes the system's buffer through unchanged.
    wchar_t buffer[512];
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
        static_cast<DWORD>(E_INVALIDARG), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), buffer, 512, nullptr);
    ASSERT_GT(length, 0u);
    EXPECT_EQ(Orvanta::Win32::ErrorTextSource().systemMessage(E_INVALIDARG), std::wstring(buffer, length));
}

TEST(Win32ErrorTextSource, CodesWithoutSystemTextGiveEmpty)
{
    const Orvanta::Win32::ErrorTextSource source;
    EXPECT_EQ(source.systemMessage(kAccessLost), std::wstring());
    EXPECT_EQ(source.systemMessage(kUnsupportedFormat), std::wstring());
}

TEST(Win32ErrorTextSource, PlatformSourceIsTheWin32One)
{
    const auto& source = Orvanta::platformErrorTextSource();
    EXPECT_NE(dynamic_cast<const Orvanta::Win32::ErrorTextSource*>(&source), nullptr);
    EXPECT_EQ(&source, &Orvanta::platformErrorTextSource());
}

TEST(ResultCodeText, KnownCodeIsNumberColonSystemText)
{
    const auto& source = Orvanta::platformErrorTextSource();
    const std::wstring system = source.systemMessage(E_ACCESSDENIED);
    ASSERT_FALSE(system.empty());
    EXPECT_EQ(Orvanta::resultCodeText(E_ACCESSDENIED, source), L"0xFFFFFFFF80070005: " + system);
    EXPECT_EQ(Orvanta::resultCodeText(E_FAIL, source), L"0xFFFFFFFF80004005: " + source.systemMessage(E_FAIL));
}

TEST(ResultCodeText, CodeWithoutSystemTextIsUnknownExpect)
{
    const auto& source = Orvanta::platformErrorTextSource();
    EXPECT_EQ(Orvanta::resultCodeText(kAccessLost, source), L"0xFFFFFFFF887A0026: Unknown expect");
    EXPECT_EQ(Orvanta::resultCodeText(kUnsupportedFormat, source), L"0xFFFFFFFF88890008: Unknown expect");
}

TEST(ResultCodeText, NonNegativeCodesAreNoErrorWithoutAskingTheSystem)
{
    FixedTextSource source(L"should not be used");
    EXPECT_EQ(Orvanta::resultCodeText(0, source), L"No error");
    EXPECT_EQ(Orvanta::resultCodeText(1, source), L"No error");
    EXPECT_EQ(Orvanta::resultCodeText(S_FALSE, source), L"No error");
    EXPECT_EQ(Orvanta::resultCodeText(0x7FFFFFFF, source), L"No error");
    EXPECT_EQ(source.calls, 0);
}

TEST(ResultCodeText, NumberTextSignExtendsAndUsesUpperCase)
{
    EXPECT_EQ(Orvanta::resultCodeNumberText(-1), L"0xFFFFFFFFFFFFFFFF");
    EXPECT_EQ(Orvanta::resultCodeNumberText(static_cast<long>(0x8000FFFFu)), L"0xFFFFFFFF8000FFFF");
    EXPECT_EQ(Orvanta::resultCodeNumberText(static_cast<long>(0x80000000u)), L"0xFFFFFFFF80000000");
    EXPECT_EQ(Orvanta::resultCodeNumberText(0), L"0x0");
    EXPECT_EQ(Orvanta::resultCodeNumberText(0xABC), L"0xABC");
}

TEST(ResultCodeText, SourceTextIsTakenLiterally)
{
    // Placeholders in a system text are not substituted a second time.
    FixedTextSource source(L"100%1 done %2\r\n");
    EXPECT_EQ(Orvanta::resultCodeText(E_FAIL, source), L"0xFFFFFFFF80004005: 100%1 done %2\r\n");
    EXPECT_EQ(source.calls, 1);
}

TEST(ResultCodeText, AnswersFromManyThreadsAtOnce)
{
    const auto& source = Orvanta::platformErrorTextSource();
    const std::wstring expectedKnown = Orvanta::resultCodeText(E_ACCESSDENIED, source);
    const std::wstring expectedUnknown = Orvanta::resultCodeText(kAccessLost, source);
    std::atomic<int> mismatches {0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                if (Orvanta::resultCodeText(E_ACCESSDENIED, source) != expectedKnown
                    || Orvanta::resultCodeText(kAccessLost, source) != expectedUnknown) {
                    ++mismatches;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mismatches.load(), 0);
}
