#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QProcess>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

/**
 * A private Xvfb for one test: started with the RANDR, DAMAGE and MIT-SHM
 * extensions, announced through -displayfd, made the process's $DISPLAY, and
 * killed at destruction (or earlier, by the test), when the $DISPLAY from
 * before comes back. started() is false when Xvfb could not be run; the test
 * then fails.
 */
class XvfbServer
{
public:
    XvfbServer(int width, int height, int depth = 24)
        : m_previousDisplay(qgetenv("DISPLAY"))
        , m_hadDisplay(qEnvironmentVariableIsSet("DISPLAY"))
    {
        int fds[2];
        if (pipe(fds) != 0) {
            return;
        }
        const QByteArray screen = QStringLiteral("%1x%2x%3").arg(width).arg(height).arg(depth).toLatin1();
        const QByteArray fd = QByteArray::number(fds[1]);
        m_pid = fork();
        if (m_pid == 0) {
            close(fds[0]);
            const int devnull = open("/dev/null", O_RDWR);
            dup2(devnull, 0);
            dup2(devnull, 1);
            dup2(devnull, 2);
            execlp("Xvfb", "Xvfb", "-displayfd", fd.constData(), "-screen", "0", screen.constData(), "+extension",
                "RANDR", "+extension", "DAMAGE", "+extension", "MIT-SHM", "-nolisten", "tcp", "-noreset",
                static_cast<char*>(nullptr));
            _exit(127);
        }
        close(fds[1]);
        if (m_pid < 0) {
            close(fds[0]);
            return;
        }
        QByteArray number;
        pollfd descriptor = {fds[0], POLLIN, 0};
        while (::poll(&descriptor, 1, 20000) > 0) {
            char c;
            if (read(fds[0], &c, 1) != 1 || c == '\n') {
                break;
            }
            number.append(c);
        }
        close(fds[0]);
        if (number.isEmpty()) {
            kill();
            return;
        }
        m_display = QStringLiteral(":") + QString::fromLatin1(number);
        qputenv("DISPLAY", m_display.toLatin1());
    }

    ~XvfbServer()
    {
        kill();
        if (m_hadDisplay) {
            qputenv("DISPLAY", m_previousDisplay);
        } else {
            qunsetenv("DISPLAY");
        }
    }

    XvfbServer(const XvfbServer&) = delete;
    XvfbServer& operator=(const XvfbServer&) = delete;

    bool started() const
    {
        return !m_display.isEmpty() && m_pid > 0;
    }
    QString display() const
    {
        return m_display;
    }

    void kill()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
            m_pid = -1;
        }
    }

    /// Runs xrandr against this server; true when it succeeded.
    bool xrandr(const QStringList& arguments) const
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("DISPLAY"), m_display);
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral("xrandr"), arguments);
        return process.waitForFinished(20000) && process.exitStatus() == QProcess::NormalExit
            && process.exitCode() == 0;
    }

private:
    QByteArray m_previousDisplay;
    bool m_hadDisplay = false;
    pid_t m_pid = -1;
    QString m_display;
};
