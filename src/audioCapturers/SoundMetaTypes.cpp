#include "SoundMetaTypes.h"

#include "IAudioCapture.h"

namespace Orvanta {

void registerSpectrumListMetaType()
{
    qRegisterMetaType<QVector<Spectrum>>("QVector<Spectrum>");
}

void registerSoundChannelListMetaType()
{
    qRegisterMetaType<QVector<SoundChannel>>("QVector<SoundChannel>");
}

} // namespace Orvanta
