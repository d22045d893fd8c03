#include "IDeskCapture.h"

IDeskCapture::IDeskCapture()
    : QObject(nullptr)
{
}

IDeskCapture::~IDeskCapture() = default;

QString IDeskCapture::scalerName()
{
    return QString();
}
