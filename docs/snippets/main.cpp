// Links every fragment of the guide; the program is built, never run.
#include "snippets.h"

int main(int argc, char* argv[])
{
    if (argc > 100) {
        snippets::connectSound(nullptr, nullptr, {});
        snippets::readFramesElsewhere({});
        snippets::configurationFromThreads();
        snippets::readSettings();
        snippets::watchSettings(nullptr);
        snippets::talkToServer(nullptr);
        snippets::trustOwnAuthority();
        snippets::reportUsage();
        snippets::chooseCaptureMode();
        snippets::packFeedback();
        snippets::tourConfiguration();
        snippets::tourScreen();
        snippets::tourSound(nullptr);
        snippets::tourFeedback();
    }
    return argc > 200 ? snippets::runApplication(argc, argv) : 0;
}
