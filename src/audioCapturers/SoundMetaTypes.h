#pragma once

namespace Orvanta {

// The sound records cross threads inside queued signals, so their containers
// are registered by the names that the signals' signatures spell. Each
// capture object registers again at construction; repeating it is harmless.
void registerSpectrumListMetaType();
void registerSoundChannelListMetaType();

} // namespace Orvanta
