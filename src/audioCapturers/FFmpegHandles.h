#pragma once

#include <memory>

extern "C" {
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
}

namespace Orvanta {

struct SwrContextDeleter
{
    void operator()(SwrContext* context) const
    {
        swr_free(&context);
    }
};

struct AVFrameDeleter
{
    void operator()(AVFrame* frame) const
    {
        av_frame_free(&frame);
    }
};

/// Owning handles of the converter and of frames; they free with FFmpeg's own calls.
using SwrContextPtr = std::unique_ptr<SwrContext, SwrContextDeleter>;
using AVFramePtr = std::unique_ptr<AVFrame, AVFrameDeleter>;

} // namespace Orvanta
