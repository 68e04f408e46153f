// SPDX-License-Identifier: MIT
// Input: a chunk of the 7-Zip program's output. Reading it only leaves things out.
#include "fuzzing.h"

#include "outputparsers.h"
#include "sevenzip.h"

namespace {

/// Whether @p text is @p whole with some characters left out.
bool isLeftOf(const QString &text, const QString &whole)
{
    auto at = text.cbegin();
    for (const QChar character : whole) {
        if (at != text.cend() && *at == character)
            ++at;
    }
    return at == text.cend();
}

void checkPercents(const QString &text)
{
    const QStringList parts = getPercents(text);
    require(parts.isEmpty() == !text.contains(QLatin1Char('%')), "parts are there with a %");
    int at = 0;
    for (const QString &part : parts) {
        for (const char *mark : {" U", " + ", " - ", "% "})
            require(!part.contains(QLatin1String(mark)), "parts are cut at each mark");
        at = text.indexOf(part, at);
        require(at >= 0, "parts stand in the text, in their order");
        at += part.size();
    }
}

void checkText(const QString &text)
{
    const QString stripped = strip(text);
    require(isLeftOf(stripped, text), "stripping only leaves out");
    require(!stripped.contains(QLatin1Char('\b')), "no backspace is left");

    checkPercents(text);
    checkPercents(stripped);

    const QString errors = checkErrors(text);
    require(errors == (text.contains(QLatin1String("ERROR:")) ? text : QString()),
        "an error is told with all of the text");
    if (text.contains(QLatin1String("Everything is Ok")))
        require(isEverythingIsOk(text), "success is seen wherever it stands");

    const QList<int> percentages = SevenZip::percentages(text);
    require(percentages.size() <= text.count(QLatin1Char('\n')) + 1, "one percentage a line");
}

} // namespace

void prepare()
{
    require(getPercents("12% 3 + a"_s).first() == "12"_s, "a percentage is seen");
    require(isEverythingIsOk("\nEVERYTHING is ok\n"_s), "success is seen");
}

void tryInput(const QByteArray &input)
{
    checkText(QString::fromUtf8(input));
    checkText(QString::fromLatin1(input));
    checkText(SevenZip::decode(input));
}
