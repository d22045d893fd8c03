// The guide's fragments, gathered in functions so that the documentation
// test compiles and links every one of them against the installed API.
#pragma once

#include <QtCore/QObject>
#include <QtCore/QSharedPointer>

class AudioCapManager;
class AudioCapturer;
class IDeskCapture;

namespace snippets {

int runApplication(int argc, char* argv[]);
void connectSound(QObject* receiver, AudioCapManager* audio, const QSharedPointer<AudioCapturer>& sound);
void readFramesElsewhere(const QSharedPointer<IDeskCapture>& screen);
void configurationFromThreads();

void readSettings();
void watchSettings(QObject* receiver);

void talkToServer(QObject* receiver);
void trustOwnAuthority();
void reportUsage();

void chooseCaptureMode();

void packFeedback();

void tourConfiguration();
void tourScreen();
void tourSound(QObject* receiver);
void tourFeedback();

} // namespace snippets
