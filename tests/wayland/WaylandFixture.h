#pragma once

// What the Wayland fixtures hand the tests: the files of the portal's chooser
// and log, named by the fixture's environment.

#include "TestFiles.h"

#include <QtCore/QFile>
#include <QtCore/QString>
#include <QtCore/QTemporaryDir>
#include <QtGui/QColor>
#include <QtGui/QImage>
#include <QtGui/QPainter>
#include <QtTest/QTest>

#include <opencv2/core.hpp>

/// The file the fixture names in the environment variable @p variable.
inline QString fixtureFile(const char* variable)
{
    return QString::fromLocal8Bit(qgetenv(variable));
}

/// What "the user" picks in the portal's chooser from now on.
inline void choose(const QString& output)
{
    QFile file(fixtureFile("ORVANTA_WAYLAND_CHOICE"));
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(output.toUtf8() + '\n');
}

/// How often the portal has asked the user so far.
inline int questions()
{
    return readFile(fixtureFile("ORVANTA_WAYLAND_STARTS")).count('\n');
}

/// How many sessions the back-end restored from a token so far.
inline int restoredSessions()
{
    return readFile(fixtureFile("ORVANTA_WAYLAND_PORTAL_LOG")).count("dbus: restoring session from data");
}

/// Data rows for the two modes that copy the screen themselves.
inline void addCopyModeRows()
{
    QTest::addColumn<int>("mode");
    QTest::newRow("duplication") << 0;
    QTest::newRow("blit") << 2;
}

/// Whether a frame's pixel (R, G, B, A) is @p colour, within @p tolerance a
/// channel for what scaling may round.
inline bool pixelIs(const cv::Mat& frame, int row, int col, const QColor& colour, int tolerance)
{
    if (frame.empty() || row >= frame.rows || col >= frame.cols)
        return false;
    const cv::Vec4b pixel = frame.at<cv::Vec4b>(row, col);
    return qAbs(pixel[0] - colour.red()) <= tolerance && qAbs(pixel[1] - colour.green()) <= tolerance
        && qAbs(pixel[2] - colour.blue()) <= tolerance;
}

/// The colours of quadrantPicture(): top left, top right, bottom left, bottom right.
inline const QColor QuadrantColours[4] = {Qt::red, Qt::green, Qt::blue, Qt::white};

/**
 * Writes a picture of four quadrants in QuadrantColours into @p dir, for the
 * compositor's own wallpaper to show upright on a turned output. sway runs
 * wallpapers as the desktop's user, who must be able to read the file. The
 * file's path, or an empty string when it could not be written.
 */
inline QString quadrantPicture(const QTemporaryDir& dir)
{
    QImage picture(200, 200, QImage::Format_RGB32);
    {
        QPainter painter(&picture);
        painter.fillRect(0, 0, 100, 100, QuadrantColours[0]);
        painter.fillRect(100, 0, 100, 100, QuadrantColours[1]);
        painter.fillRect(0, 100, 100, 100, QuadrantColours[2]);
        painter.fillRect(100, 100, 100, 100, QuadrantColours[3]);
    }
    const bool readable = QFile::setPermissions(dir.path(),
        QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther
            | QFile::ExeOther);
    const QString file = dir.filePath(QStringLiteral("quadrants.png"));
    return readable && picture.save(file) ? file : QString();
}
