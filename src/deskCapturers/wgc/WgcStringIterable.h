#pragma once

#include "wgc/WgcAbi.h"
#include "wgc/WgcComObject.h"
#include "wgc/WgcRuntime.h"

#include <wrl/client.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <utility>
#include <vector>

namespace Orvanta {
namespace Wgc {

class StringIterator;

/**
 * A fixed list of strings as the runtime's IIterable<String>, for the calls
 * that take a collection of names.
 *
 * The iterable owns its strings and never changes them; each First() hands
 * out a new iterator that keeps the iterable alive, so the runtime may walk
 * it as often and as long as it likes, on any thread.
 */
class StringIterable final : public AgileInspectable<Abi::IIterableString, Abi::IID_IIterableString>
{
public:
    /// An iterable over @p texts (UTF-8); the caller holds its one reference.
    /// Fails with the runtime's code when a string cannot be made.
    static long create(const std::vector<std::string>& texts, Microsoft::WRL::ComPtr<Abi::IIterableString>& iterable)
    {
        iterable.Reset();
        std::vector<HString> strings;
        strings.reserve(texts.size());
        for (const std::string& text : texts) {
            strings.push_back(HString::fromUtf8(text));
            if (strings.back().result() < 0)
                return strings.back().result();
        }
        iterable = adopt<Abi::IIterableString>(new StringIterable(std::move(strings)));
        return S_OK;
    }

    /// Iterables and iterators alive in the process; a leak shows here.
    static int liveObjects()
    {
        return s_liveObjects.load();
    }

    HRESULT STDMETHODCALLTYPE First(Abi::IIteratorString** first) override;

    std::size_t size() const
    {
        return m_strings.size();
    }

    HSTRING at(std::size_t index) const
    {
        return m_strings[index].get();
    }

private:
    friend class StringIterator;

    explicit StringIterable(std::vector<HString> strings)
        : AgileInspectable(L"Windows.Foundation.Collections.IIterable`1<String>")
        , m_strings(std::move(strings))
    {
        ++s_liveObjects;
    }

    ~StringIterable() override
    {
        --s_liveObjects;
    }

    static inline std::atomic<int> s_liveObjects {0};

    const std::vector<HString> m_strings;
};

/**
 * One walk over a StringIterable. Strings handed out are copies that the
 * receiver deletes, as the runtime's rules for out strings require. One
 * iterator is meant for one reader at a time; the runtime never shares one.
 */
class StringIterator final : public AgileInspectable<Abi::IIteratorString, Abi::IID_IIteratorString>
{
public:
    explicit StringIterator(Microsoft::WRL::ComPtr<StringIterable> iterable)
        : AgileInspectable(L"Windows.Foundation.Collections.IIterator`1<String>")
        , m_iterable(std::move(iterable))
    {
        ++StringIterable::s_liveObjects;
    }

    HRESULT STDMETHODCALLTYPE get_Current(HSTRING* current) override
    {
        if (!current)
            return E_POINTER;
        *current = nullptr;
        if (m_position >= m_iterable->size())
            return OutOfBounds;
        HString copy = HString::duplicate(m_iterable->at(m_position));
        if (copy.result() < 0)
            return copy.result();
        *current = copy.release();
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE get_HasCurrent(Abi::Boolean* hasCurrent) override
    {
        if (!hasCurrent)
            return E_POINTER;
        *hasCurrent = m_position < m_iterable->size() ? 1 : 0;
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE MoveNext(Abi::Boolean* hasCurrent) override
    {
        if (!hasCurrent)
            return E_POINTER;
        if (m_position < m_iterable->size())
            ++m_position;
        *hasCurrent = m_position < m_iterable->size() ? 1 : 0;
        return S_OK;
    }

    /// Copies up to @p capacity strings from the current one on into
    /// @p items and moves past them; @p actual says how many.
    HRESULT STDMETHODCALLTYPE GetMany(UINT32 capacity, HSTRING* items, UINT32* actual) override
    {
        if (!actual)
            return E_POINTER;
        *actual = 0;
        if (capacity > 0 && !items)
            return E_POINTER;
        const std::size_t count = std::min<std::size_t>(capacity, m_iterable->size() - m_position);
        std::vector<HString> copies;
        copies.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            copies.push_back(HString::duplicate(m_iterable->at(m_position + i)));
            if (copies.back().result() < 0)
                return copies.back().result(); // the copies made so far go with the vector
        }
        for (std::size_t i = 0; i < count; ++i)
            items[i] = copies[i].release();
        m_position += count;
        *actual = UINT32(count);
        return S_OK;
    }

private:
    ~StringIterator() override
    {
        --StringIterable::s_liveObjects;
    }

    const Microsoft::WRL::ComPtr<StringIterable> m_iterable;
    std::size_t m_position = 0;
};

inline HRESULT STDMETHODCALLTYPE StringIterable::First(Abi::IIteratorString** first)
{
    if (!first)
        return E_POINTER;
    *first = new StringIterator(Microsoft::WRL::ComPtr<StringIterable>(this));
    return S_OK;
}

} // namespace Wgc
} // namespace Orvanta
