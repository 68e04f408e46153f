// SPDX-License-Identifier: MIT
#include "ownapplication.h"

#include "qtversion.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <clocale>
#include <condition_variable>
#include <exception>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace Pellox {

namespace {

/// The locale of the process is the host's, but QCoreApplication sets it from the environment.
class KeptLocale
{
public:
    KeptLocale() = default;
    ~KeptLocale() { std::setlocale(LC_ALL, m_locale.c_str()); }
    KeptLocale(const KeptLocale &) = delete;
    KeptLocale &operator=(const KeptLocale &) = delete;

private:
    const std::string m_locale = std::setlocale(LC_ALL, nullptr);
};

/// Qt warns of what is so on purpose: that the application is not made on the thread which loaded
/// the library, and of a locale that is no UTF-8.
class Silence
{
public:
    Silence() = default;
    ~Silence() { qInstallMessageHandler(m_before); }
    Silence(const Silence &) = delete;
    Silence &operator=(const Silence &) = delete;

private:
    const QtMessageHandler m_before
        = qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
};

void makeApplication()
{
    static char name[] = "pellox";
    static char *arguments[] = {name, nullptr};
    static int count = 1;
    const KeptLocale kept;
    const Silence silence;
    new QCoreApplication(count, arguments); // for good
    takeFileNamesAsUtf8();
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false\n*.info=false"));
}

/// Objects of Qt belong to a thread, which must not end before them. This one runs no loop: that
/// would take the events of a host that uses GLib, in whose default context Qt puts its own.
void liveOn(std::promise<void> made)
{
    try {
        makeApplication();
    } catch (...) {
        made.set_exception(std::current_exception());
        return;
    }
    made.set_value();
    std::mutex mutex;
    std::unique_lock lock(mutex);
    std::condition_variable never;
    while (true)
        never.wait(lock);
}

} // namespace

void prepareQt()
{
    static std::mutex mutex;
    const std::lock_guard lock(mutex);
    if (!QCoreApplication::instance()) {
        std::promise<void> made;
        auto isMade = made.get_future();
        std::thread(liveOn, std::move(made)).detach();
        isMade.get();
    }
    // Found out at the first call, which two threads must not make at the same time.
    (void)QCoreApplication::applicationDirPath();
}

} // namespace Pellox
