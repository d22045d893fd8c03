// Fragments of the guide's chapter on privacy.
#include "snippets.h"

#include <LibOrvanta/ConfigurationManager.h>
#include <LibOrvanta/FeedbackManager.h>
#include <LibOrvanta/HardwareInfo.h>

#include <QtCore/QDebug>

namespace snippets {

void packFeedback()
{
    //! [feedback-contents]
    FeedbackManager feedback; // writes "sysInfo" into global.json and saves it
    qInfo() << ConfigurationManager::instance()->globalValue(QStringLiteral("sysInfo")); // what will travel
    feedback.setUserContactInfo(QStringLiteral("../me:@example.com")); // message file "___me_@example.com.txt"
    feedback.setUserMsg(QStringLiteral("The left strip flickers."));
    const QString zip = feedback.zipFeedbackFile(); // show the user this path before sending it
    qInfo() << zip << HardwareInfo::getMacStr(QStringLiteral("0")) << HardwareInfo::get_cpuId();
    //! [feedback-contents]
}

} // namespace snippets
