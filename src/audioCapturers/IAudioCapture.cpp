#include "IAudioCapture.h"

IAudioCapture::IAudioCapture(QObject* parent)
    : QObject(parent)
{
}

IAudioCapture::~IAudioCapture() = default;
