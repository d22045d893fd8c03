#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Orvanta {
namespace Ifaces {

class ConsentStore;

/// A rectangle of the virtual desktop; right and bottom are exclusive.
struct ScreenRect
{
    long left = 0;
    long top = 0;
    long right = 0;
    long bottom = 0;
};

/**
 * Pixels copied from the screen: four bytes a pixel in the order B, G, R and
 * one byte without meaning, rows from the top down. The memory belongs to the
 * grabber and stays valid until its next grab or its end.
 */
struct ScreenImage
{
    const unsigned char* pixels = nullptr;
    int width = 0;
    int height = 0;
    std::size_t bytesPerLine = 0;
};

/// Copies rectangles of the screen to memory, as the blit back-end needs.
class ScreenGrabber
{
public:
    virtual ~ScreenGrabber() = default;

    /// The monitor's rectangle on the virtual desktop; false if the monitor is unknown.
    virtual bool monitorRect(std::uintptr_t monitor, ScreenRect& rect) = 0;

    /**
     * Copies @p rect, which lies on @p monitor's screen, as monitorRect() gave
     * it; false if nothing could be copied.
     */
    virtual bool grab(std::uintptr_t monitor, const ScreenRect& rect, ScreenImage& image) = 0;

    /// Told that rows [firstRow, endRow) of the image being copied are in memory.
    using BandArrived = std::function<void(const ScreenImage& image, int firstRow, int endRow)>;

    /**
     * Copies @p rect as grab() does, in bands of rows ending at @p bandEnds
     * (ascending, the last one the rectangle's height), and hands each band to
     * @p arrived as soon as it is in memory, so that the caller can work on it
     * while the next one is copied. @p image describes the whole rectangle
     * from the first call on; rows not yet handed on must not be read.
     * @p arrived must not throw. False if a band could not be copied; the
     * bands handed on before it were complete.
     *
     * A grabber that copies in one piece hands the whole on at once.
     */
    virtual bool grabInBands(std::uintptr_t monitor, const ScreenRect& rect, const std::vector<int>& bandEnds,
        ScreenImage& image, const BandArrived& arrived)
    {
        (void)bandEnds;
        if (!grab(monitor, rect, image))
            return false;
        arrived(image, 0, image.height);
        return true;
    }

    /**
     * True where the screen already holds a turned monitor as its user sees
     * it (an X server composes its root so), and the rectangle has the turned
     * size: the picture then needs no turning of its own. False where the
     * blit capturer turns it by the output's rotation.
     */
    virtual bool picturesAreTurned() const = 0;
    /// Where a platform on which the user picks what is captured keeps that
    /// consent per output; the others need none.
    virtual void keepConsentIn(std::shared_ptr<ConsentStore> store)
    {
        (void)store;
    }
};

/// A grabber of the platform the library was built for; each call makes a new one.
std::unique_ptr<ScreenGrabber> createPlatformScreenGrabber();

/**
 * Why the screen of this session cannot be read by copying it (the
 * duplication and blit back-ends); empty where it can.
 */
std::string platformScreenReadingObstacle();

/// How the duplication and blit back-ends read this session's screen, for the log; empty where nothing is worth saying.
std::string platformScreenReadingPath();

} // namespace Ifaces
} // namespace Orvanta
