// SPDX-License-Identifier: MIT
#include "browser.h"
#include "patience.h"

#include <QDeadlineTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QUrl>

#include <array>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace {

constexpr int ReadEnd = 3; // of the browser
constexpr int WriteEnd = 4;
void makePipe(int (&ends)[2])
{
    int made[2];
    if (pipe(made) != 0)
        qFatal("browser: cannot make a pipe");
    for (int i = 0; i < 2; ++i) { // above those that the browser wants, and closed in children
        ends[i] = fcntl(made[i], F_DUPFD_CLOEXEC, WriteEnd + 1);
        ::close(made[i]);
    }
}

} // namespace

PipedProcess::PipedProcess()
    : PreparedProcess([this] { setUpChild(); })
{
    makePipe(m_commands);
    makePipe(m_answers);
}

PipedProcess::~PipedProcess()
{
    ::close(m_commands[1]);
    ::close(m_answers[0]);
}

void PipedProcess::closeChildEnds()
{
    ::close(m_commands[0]);
    ::close(m_answers[1]);
}

// Runs in the child, between fork and exec.
void PipedProcess::setUpChild() const
{
    dup2(m_commands[0], ReadEnd);
    dup2(m_answers[1], WriteEnd);
}

Browser::Browser()
{
    std::signal(SIGPIPE, SIG_IGN); // a browser that has ended is told of by call()
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("HOME"), m_profile.path());
    m_process.setProcessEnvironment(environment);
    m_process.setStandardOutputFile(QProcess::nullDevice());
    m_process.setStandardErrorFile(QProcess::nullDevice());
    m_process.start(QStringLiteral(CHROMIUM),
        {QStringLiteral("--headless=new"), QStringLiteral("--remote-debugging-pipe"),
            QStringLiteral("--no-sandbox"), // tests may run as root
            QStringLiteral("--disable-gpu"), QStringLiteral("--disable-dev-shm-usage"),
            QStringLiteral("--no-first-run"), QStringLiteral("--hide-scrollbars"),
            QStringLiteral("--user-data-dir=") + m_profile.path()});
    if (!m_process.waitForStarted(Patience))
        qFatal("browser: %s does not start", CHROMIUM);
    m_process.closeChildEnds();
}

Browser::~Browser()
{
    m_session.clear();
    call(QStringLiteral("Browser.close"));
    if (!m_process.waitForFinished(Patience))
        m_process.kill();
}

void Browser::open(const QString &file, const QString &fragment)
{
    if (!m_tab.isEmpty()) {
        m_session.clear();
        call(QStringLiteral("Target.closeTarget"), {{QStringLiteral("targetId"), m_tab}});
    }
    m_tab = call(QStringLiteral("Target.createTarget"),
        {{QStringLiteral("url"), QStringLiteral("about:blank")}})
                .value(QLatin1String("targetId"))
                .toString();
    m_session = call(QStringLiteral("Target.attachToTarget"),
        {{QStringLiteral("targetId"), m_tab}, {QStringLiteral("flatten"), true}})
                    .value(QLatin1String("sessionId"))
                    .toString();
    for (const char *domain : {"Page", "Runtime", "Network", "Log"})
        call(QLatin1String(domain) + QLatin1String(".enable"));
    resize(m_size);
    setDark(m_dark);

    m_requests.clear();
    m_complaints.clear();
    m_loaded = false;
    const QString url = QString::fromLatin1(QUrl::fromLocalFile(file).toEncoded());
    call(QStringLiteral("Page.navigate"), {{QStringLiteral("url"), url + fragment}});
    while (!m_loaded)
        receive();
}

void Browser::resize(QSize size)
{
    m_size = size;
    if (m_session.isEmpty())
        return;
    call(QStringLiteral("Emulation.setDeviceMetricsOverride"),
        {{QStringLiteral("width"), size.width()}, {QStringLiteral("height"), size.height()},
            {QStringLiteral("deviceScaleFactor"), 1}, {QStringLiteral("mobile"), false}});
}

void Browser::setDark(bool dark)
{
    m_dark = dark;
    if (m_session.isEmpty())
        return;
    const QJsonObject feature{{QStringLiteral("name"), QStringLiteral("prefers-color-scheme")},
        {QStringLiteral("value"), QLatin1String(dark ? "dark" : "light")}};
    call(QStringLiteral("Emulation.setEmulatedMedia"),
        {{QStringLiteral("features"), QJsonArray{feature}}});
}

QJsonValue Browser::evaluate(const QString &expression)
{
    const QJsonObject answer = call(QStringLiteral("Runtime.evaluate"),
        {{QStringLiteral("expression"), expression}, {QStringLiteral("returnByValue"), true},
            {QStringLiteral("awaitPromise"), true}});
    if (answer.contains(QLatin1String("exceptionDetails")))
        qFatal("browser: %s", QJsonDocument(answer).toJson().constData());
    return answer.value(QLatin1String("result")).toObject().value(QLatin1String("value"));
}

void Browser::moveTo(double x, double y)
{
    mouse("mouseMoved", x, y);
}

void Browser::click(double x, double y)
{
    mouse("mouseMoved", x, y);
    mouse("mousePressed", x, y);
    mouse("mouseReleased", x, y);
}

void Browser::tap(double x, double y)
{
    const QJsonObject point{{QStringLiteral("x"), x}, {QStringLiteral("y"), y}};
    call(QStringLiteral("Input.dispatchTouchEvent"),
        {{QStringLiteral("type"), QStringLiteral("touchStart")},
            {QStringLiteral("touchPoints"), QJsonArray{point}}});
    call(QStringLiteral("Input.dispatchTouchEvent"),
        {{QStringLiteral("type"), QStringLiteral("touchEnd")},
            {QStringLiteral("touchPoints"), QJsonArray()}});
}

void Browser::mouse(const char *type, double x, double y)
{
    call(QStringLiteral("Input.dispatchMouseEvent"),
        {{QStringLiteral("type"), QLatin1String(type)}, {QStringLiteral("x"), x},
            {QStringLiteral("y"), y}, {QStringLiteral("button"), QStringLiteral("left")},
            {QStringLiteral("clickCount"), 1}});
}

void Browser::press(const QString &key)
{
    static const QHash<QString, int> Codes{{QStringLiteral("Enter"), 13},
        {QStringLiteral("Tab"), 9}, {QStringLiteral("Escape"), 27}, {QStringLiteral("Home"), 36},
        {QStringLiteral("Backspace"), 8}, {QStringLiteral("ArrowLeft"), 37},
        {QStringLiteral("ArrowUp"), 38}, {QStringLiteral("ArrowRight"), 39},
        {QStringLiteral("ArrowDown"), 40}, {QStringLiteral(" "), 32}};
    const bool isText = key.size() == 1;
    const QString text = key == QLatin1String("Enter") ? QStringLiteral("\r") : key;
    QJsonObject parameters{{QStringLiteral("type"), QStringLiteral("keyDown")},
        {QStringLiteral("key"), key}, {QStringLiteral("code"), key},
        {QStringLiteral("windowsVirtualKeyCode"), Codes.value(key)}};
    if (isText || key == QLatin1String("Enter"))
        parameters.insert(QStringLiteral("text"), text);
    call(QStringLiteral("Input.dispatchKeyEvent"), parameters);
    parameters.insert(QStringLiteral("type"), QStringLiteral("keyUp"));
    parameters.remove(QStringLiteral("text"));
    call(QStringLiteral("Input.dispatchKeyEvent"), parameters);
}

QJsonObject Browser::call(const QString &method, const QJsonObject &parameters)
{
    QJsonObject message{{QStringLiteral("id"), ++m_lastId}, {QStringLiteral("method"), method},
        {QStringLiteral("params"), parameters}};
    if (!m_session.isEmpty())
        message.insert(QStringLiteral("sessionId"), m_session);
    // A message ends with a zero byte.
    const QByteArray bytes = QJsonDocument(message).toJson(QJsonDocument::Compact) + '\0';
    for (qint64 done = 0; done < bytes.size();) {
        const qint64 written = write(m_process.toChild(), bytes.constData() + done,
            static_cast<size_t>(bytes.size() - done));
        if (written <= 0)
            qFatal("browser: has ended");
        done += written;
    }
    m_answer = QJsonObject();
    while (m_answer.isEmpty())
        receive();
    if (m_answer.contains(QLatin1String("error")))
        qFatal("browser: %s: %s", qPrintable(method), QJsonDocument(m_answer).toJson().constData());
    return m_answer.value(QLatin1String("result")).toObject();
}

/// Waits for at least one piece of a message, and takes the messages that are complete.
void Browser::receive()
{
    pollfd input{m_process.fromChild(), POLLIN, 0};
    std::array<char, 65536> buffer{};
    const qint64 size = poll(&input, 1, Patience) == 1
        ? read(m_process.fromChild(), buffer.data(), buffer.size())
        : 0;
    if (size <= 0)
        qFatal("browser: does not answer");
    m_received.append(buffer.data(), static_cast<int>(size));
    for (int end = m_received.indexOf('\0'); end >= 0; end = m_received.indexOf('\0')) {
        const QJsonObject message = QJsonDocument::fromJson(m_received.left(end)).object();
        m_received.remove(0, end + 1);
        if (message.value(QLatin1String("id")).toInt() == m_lastId)
            m_answer = message;
        else
            note(message);
    }
}

void Browser::note(const QJsonObject &event)
{
    if (event.value(QLatin1String("sessionId")).toString() != m_session)
        return;
    const QString method = event.value(QLatin1String("method")).toString();
    const QJsonObject parameters = event.value(QLatin1String("params")).toObject();
    if (method == QLatin1String("Page.loadEventFired")) {
        m_loaded = true;
    } else if (method == QLatin1String("Network.requestWillBeSent")) {
        m_requests.append(parameters.value(QLatin1String("request"))
                              .toObject()
                              .value(QLatin1String("url"))
                              .toString());
    } else if (method == QLatin1String("Page.javascriptDialogOpening")
        || method == QLatin1String("Runtime.exceptionThrown")
        || method == QLatin1String("Runtime.consoleAPICalled")
        || method == QLatin1String("Log.entryAdded")) {
        m_complaints.append(QString::fromUtf8(QJsonDocument(event).toJson()));
    }
}
