#pragma once

#include "ResultCodes.h"
#include "cpu/SoftwareScaler.h"
#include "ifaces/GraphicsCapture.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

/**
 * A scripted graphics-capture runtime. Every operation records its name and
 * answers with the result scripted for it (S_OK when none is). The pool hands
 * out a frame at every poll, filled with one colour, at the size of its
 * buffers; frames are scaled by the CPU scaler. Access requests keep their
 * handlers for the test to complete, on whatever thread it likes.
 */
class FakeGraphicsCapture : public Orvanta::Ifaces::GraphicsCaptureSystem
{
public:
    struct PoolState
    {
        int pixelFormat = 0;
        int bufferCount = 0;
        Orvanta::Ifaces::CaptureSize size;
    };

    // Script.
    bool contractPresent = true;
    std::set<std::string> properties {"IsBorderRequired", "IsCursorCaptureEnabled"};
    std::string version = "2814750970478592";
    std::vector<Orvanta::Ifaces::MonitorEntry> monitors;
    Orvanta::Ifaces::CaptureSize itemSize {64, 32};
    int colorSpace = 0;
    std::atomic<int> rotation {1};
    std::atomic<bool> mirrored {false};
    bool hasCursorOption = true;
    bool hasBorderOption = true;
    bool framesAvailable = true;
    bool frameWithoutSurface = false;
    bool throwOnPoll = false; ///< tryGetNextFrame throws a standard exception
    bool throwOnStart = false;
    /// Colour of the frames: R, G, B, A as floats (above 1 only makes sense in HDR).
    float colour[4] = {1.0f, 0.5f, 0.0f, 1.0f};

    // Record.
    mutable std::mutex mutex;
    std::vector<std::string> calls;
    std::map<std::string, long> results;
    std::uintptr_t itemMonitor = 0;
    std::vector<PoolState> poolStates; ///< creation, then each re-creation
    bool poolClosed = false;
    int startCount = 0;
    std::vector<bool> cursorEnabled;
    std::vector<bool> borderRequired;
    std::vector<std::vector<std::string>> capabilityRequests;
    std::vector<AccessHandler> capabilityHandlers;
    std::vector<AccessHandler> borderlessHandlers;
    int guardEnters = 0;
    int guardLeaves = 0;
    int setProtectedCalls = 0;
    bool guardProtected = false;

    long result(const std::string& name)
    {
        std::lock_guard<std::mutex> lock(mutex);
        calls.push_back(name);
        auto it = results.find(name);
        return it == results.end() ? S_OK : it->second;
    }
    int callCount(const std::string& name) const
    {
        std::lock_guard<std::mutex> lock(mutex);
        int n = 0;
        for (const auto& c : calls)
            n += c == name ? 1 : 0;
        return n;
    }

    class Item : public Orvanta::Ifaces::CaptureItem
    {
    public:
        explicit Item(FakeGraphicsCapture* owner)
            : m_owner(owner)
        {
        }
        long size(Orvanta::Ifaces::CaptureSize& size) const override
        {
            const long r = m_owner->result("Item::size");
            size = m_owner->itemSize;
            return r;
        }

    private:
        FakeGraphicsCapture* m_owner;
    };

    class Device : public Orvanta::Ifaces::CaptureDevice
    {
    };

    class Guard : public Orvanta::Ifaces::DeviceContextGuard
    {
    public:
        explicit Guard(FakeGraphicsCapture* owner)
            : m_owner(owner)
        {
        }
        bool isProtected() const override
        {
            return m_owner->guardProtected;
        }
        void setProtected(bool enabled) override
        {
            ++m_owner->setProtectedCalls;
            m_owner->guardProtected = enabled;
        }
        void enter() override
        {
            ++m_owner->guardEnters;
        }
        void leave() override
        {
            ++m_owner->guardLeaves;
        }

    private:
        FakeGraphicsCapture* m_owner;
    };

    class Frame : public Orvanta::Ifaces::CapturedFrame
    {
    public:
        Frame(FakeGraphicsCapture* owner, bool surface, int format, Orvanta::Ifaces::CaptureSize size)
            : m_owner(owner)
            , m_surface(surface)
            , m_format(format)
            , m_size(size)
        {
        }
        bool hasSurface() const override
        {
            return m_surface;
        }
        long texture(Orvanta::Ifaces::ScalerSource& source) override
        {
            const long r = m_owner->result("Frame::texture");
            m_pixels = m_owner->framePixels(m_format, m_size);
            source.pixels = m_pixels.data();
            source.width = m_size.width;
            source.height = m_size.height;
            source.format = static_cast<Orvanta::Ifaces::PixelFormat>(m_format);
            source.bytesPerLine = std::size_t(m_size.width) * Orvanta::Ifaces::bytesPerPixel(source.format);
            return r;
        }
        long deviceScaler(std::shared_ptr<Orvanta::Ifaces::GpuScaler>& scaler) override
        {
            scaler = m_owner->scaler;
            return m_owner->result("Frame::deviceScaler");
        }
        long contextGuard(std::shared_ptr<Orvanta::Ifaces::DeviceContextGuard>& guard) override
        {
            guard = m_owner->guard;
            return m_owner->result("Frame::contextGuard");
        }

    private:
        FakeGraphicsCapture* m_owner;
        bool m_surface;
        int m_format;
        Orvanta::Ifaces::CaptureSize m_size;
        std::vector<std::uint8_t> m_pixels;
    };

    class Cursor : public Orvanta::Ifaces::CursorCaptureOption
    {
    public:
        explicit Cursor(FakeGraphicsCapture* owner)
            : m_owner(owner)
        {
        }
        long setCursorCaptureEnabled(bool enabled) override
        {
            std::lock_guard<std::mutex> lock(m_owner->mutex);
            m_owner->cursorEnabled.push_back(enabled);
            return S_OK;
        }

    private:
        FakeGraphicsCapture* m_owner;
    };

    class Border : public Orvanta::Ifaces::BorderOption
    {
    public:
        explicit Border(FakeGraphicsCapture* owner)
            : m_owner(owner)
        {
        }
        long setBorderRequired(bool required) override
        {
            std::lock_guard<std::mutex> lock(m_owner->mutex);
            m_owner->borderRequired.push_back(required);
            return S_OK;
        }

    private:
        // Plain: the fake keeps the access handlers, which keep this option.
        FakeGraphicsCapture* m_owner;
    };

    class Session : public Orvanta::Ifaces::CaptureSession
    {
    public:
        explicit Session(FakeGraphicsCapture* owner)
            : m_owner(owner)
        {
        }
        long startCapture() override
        {
            if (m_owner->throwOnStart)
                throw std::runtime_error("start");
            ++m_owner->startCount;
            return m_owner->result("Session::startCapture");
        }
        std::shared_ptr<Orvanta::Ifaces::CursorCaptureOption> cursorOption() override
        {
            if (!m_owner->hasCursorOption)
                return nullptr;
            return std::make_shared<Cursor>(m_owner);
        }
        std::shared_ptr<Orvanta::Ifaces::BorderOption> borderOption() override
        {
            if (!m_owner->hasBorderOption)
                return nullptr;
            return std::make_shared<Border>(m_owner);
        }

    private:
        FakeGraphicsCapture* m_owner;
    };

    class Pool : public Orvanta::Ifaces::CaptureFramePool
    {
    public:
        explicit Pool(FakeGraphicsCapture* owner)
            : m_owner(owner)
        {
        }
        long createCaptureSession(
            const Orvanta::Ifaces::CaptureItem&, std::shared_ptr<Orvanta::Ifaces::CaptureSession>& session) override
        {
            session = std::make_shared<Session>(m_owner);
            return m_owner->result("Pool::createCaptureSession");
        }
        long tryGetNextFrame(std::unique_ptr<Orvanta::Ifaces::CapturedFrame>& frame) override
        {
            if (m_owner->poolClosed) {
                m_owner->result("Pool::tryGetNextFrame");
                return RO_E_CLOSED;
            }
            if (m_owner->throwOnPoll)
                throw std::runtime_error("poll");
            const long r = m_owner->result("Pool::tryGetNextFrame");
            if (r < 0 || !m_owner->framesAvailable)
                return r;
            const PoolState state = m_owner->poolStates.back();
            frame.reset(new Frame(m_owner, !m_owner->frameWithoutSurface, state.pixelFormat, state.size));
            return r;
        }
        long recreate(const Orvanta::Ifaces::CaptureDevice&, int pixelFormat, int bufferCount,
            Orvanta::Ifaces::CaptureSize size) override
        {
            if (m_owner->poolClosed)
                return RO_E_CLOSED;
            const long r = m_owner->result("Pool::recreate");
            if (r >= 0)
                m_owner->poolStates.push_back({pixelFormat, bufferCount, size});
            return r;
        }
        long close() override
        {
            m_owner->poolClosed = true;
            return m_owner->result("Pool::close");
        }

    private:
        FakeGraphicsCapture* m_owner;
    };

    std::shared_ptr<Orvanta::Ifaces::GpuScaler> scaler = std::make_shared<Orvanta::Cpu::SoftwareScaler>();
    std::shared_ptr<Guard> guard = std::make_shared<Guard>(this);

    // GraphicsCaptureSystem
    bool isApiContractPresent(const std::string& contract, unsigned version) override
    {
        result("isApiContractPresent:" + contract + ":" + std::to_string(version));
        return contractPresent;
    }
    bool isPropertyPresent(const std::string& type, const std::string& property) override
    {
        result("isPropertyPresent:" + type + "." + property);
        return properties.count(property) > 0;
    }
    long deviceFamilyVersion(std::string& text) override
    {
        text = version;
        return result("deviceFamilyVersion");
    }
    long requestCapabilityAccess(const std::vector<std::string>& capabilities, AccessHandler completed) override
    {
        const long r = result("requestCapabilityAccess");
        std::lock_guard<std::mutex> lock(mutex);
        capabilityRequests.push_back(capabilities);
        capabilityHandlers.push_back(std::move(completed));
        return r;
    }
    long requestBorderlessAccess(AccessHandler completed) override
    {
        const long r = result("requestBorderlessAccess");
        std::lock_guard<std::mutex> lock(mutex);
        borderlessHandlers.push_back(std::move(completed));
        return r;
    }
    long enumerateMonitors(std::vector<Orvanta::Ifaces::MonitorEntry>& list) override
    {
        list = monitors;
        return result("enumerateMonitors");
    }
    long createItemForMonitor(std::uintptr_t monitor, std::shared_ptr<Orvanta::Ifaces::CaptureItem>& item) override
    {
        itemMonitor = monitor;
        const long r = result("createItemForMonitor");
        if (r >= 0)
            item = std::make_shared<Item>(this);
        return r;
    }
    long queryDxgiDevice(const std::shared_ptr<Orvanta::Ifaces::GraphicsDevice>&) override
    {
        return result("queryDxgiDevice");
    }
    long createCaptureDevice(const std::shared_ptr<Orvanta::Ifaces::GraphicsDevice>&,
        std::shared_ptr<Orvanta::Ifaces::CaptureDevice>& device) override
    {
        const long r = result("createCaptureDevice");
        if (r >= 0)
            device = std::make_shared<Device>();
        return r;
    }
    long queryOutputColorSpace(const std::shared_ptr<Orvanta::Ifaces::DisplayOutput>&) override
    {
        return result("queryOutputColorSpace");
    }
    long outputColorSpace(const std::shared_ptr<Orvanta::Ifaces::DisplayOutput>&, int& space) override
    {
        space = colorSpace;
        return result("outputColorSpace");
    }
    long outputRotation(const std::shared_ptr<Orvanta::Ifaces::DisplayOutput>&, int& value) override
    {
        value = rotation.load();
        return result("outputRotation");
    }
    long outputMirrored(const std::shared_ptr<Orvanta::Ifaces::DisplayOutput>&, bool& value) override
    {
        value = mirrored.load();
        return result("outputMirrored");
    }
    long createFreeThreadedPool(const Orvanta::Ifaces::CaptureDevice&, int pixelFormat, int bufferCount,
        Orvanta::Ifaces::CaptureSize size, std::shared_ptr<Orvanta::Ifaces::CaptureFramePool>& pool) override
    {
        const long r = result("createFreeThreadedPool");
        if (r >= 0) {
            poolStates.push_back({pixelFormat, bufferCount, size});
            pool = std::make_shared<Pool>(this);
        }
        return r;
    }

    /// One frame of @p size in @p format, every pixel in colour.
    std::vector<std::uint8_t> framePixels(int format, Orvanta::Ifaces::CaptureSize size) const
    {
        const std::size_t count = std::size_t(size.width) * std::size_t(size.height);
        std::vector<std::uint8_t> pixels;
        if (format == 10) {
            pixels.resize(count * 8);
            std::uint16_t half[4];
            for (int i = 0; i < 4; ++i)
                half[i] = toHalf(colour[i]);
            for (std::size_t p = 0; p < count; ++p)
                std::memcpy(&pixels[p * 8], half, 8);
        } else {
            pixels.resize(count * 4);
            const std::uint8_t bgra[4] = {toByte(colour[2]), toByte(colour[1]), toByte(colour[0]), toByte(colour[3])};
            for (std::size_t p = 0; p < count; ++p)
                std::memcpy(&pixels[p * 4], bgra, 4);
        }
        return pixels;
    }

    static std::uint8_t toByte(float v)
    {
        return static_cast<std::uint8_t>(v <= 0.0f ? 0 : v >= 1.0f ? 255 : int(v * 255.0f + 0.5f));
    }
    /// Half floats of the few exact values the tests use.
    static std::uint16_t toHalf(float v)
    {
        if (v == 0.0f)
            return 0x0000;
        if (v == 0.5f)
            return 0x3800;
        if (v == 1.0f)
            return 0x3C00;
        if (v == 2.0f)
            return 0x4000;
        if (v == 4.0f)
            return 0x4400;
        throw std::invalid_argument("no half float for this value in the fake");
    }
};
