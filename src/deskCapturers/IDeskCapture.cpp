#include "IDeskCapture.h"

IDeskCapture::IDeskCapture()
    : QObject(nullptr)
{
}

IDeskCapture::~IDeskCapture() = default;
