// SPDX-License-Identifier: MIT
#include "contentmatcher.h"

#include "deltaformat.h"

#include <algorithm>
#include <cstring>

namespace Pellox {

namespace {

/// A match begins with as many equal bytes at least; fewer spare nothing, and equal ones are many.
constexpr qint64 LeastSame = sizeof(quint64);
/// How far behind a match what stands there in the old file is looked at. The index finds what
/// goes on farther away.
constexpr qint64 Resumed = 256;

quint64 wordAt(const uchar *data)
{
    quint64 word = 0;
    std::memcpy(&word, data, sizeof word);
    return word;
}

/// Of a copy command.
qint64 costOf(const Match &match)
{
    const auto widthFor = [](qint64 value) {
        return DeltaFormat::widthOf(DeltaFormat::narrowestFor(static_cast<quint64>(value)));
    };
    return 1 + widthFor(match.oldPosition) + widthFor(match.length);
}

qint64 sameBytes(const uchar *one, const uchar *other, qint64 most)
{
    constexpr qint64 Word = sizeof(quint64);
    qint64 same = 0;
    while (same + Word <= most && wordAt(one + same) == wordAt(other + same))
        same += Word;
    while (same < most && one[same] == other[same])
        ++same;
    return same;
}

} // namespace

ContentMatcher::ContentMatcher(const SearchEffort &effort, const ContentIndex &index,
    PagedView &old, const Stretch &stretch, std::vector<Match> *matches)
    : m_effort(effort)
    , m_index(index)
    , m_old(old)
    , m_stretch(stretch)
    , m_matches(*matches)
    , m_before(matches->size())
    , m_position(stretch.begin)
    , m_end(stretch.begin)
    , m_lastWindow(std::min(stretch.end, stretch.available - index.window() + 1))
    , m_lastKept(stretch.begin)
{
}

void ContentMatcher::find()
{
    loadNeighbourhood();
    while (m_position + LeastSame <= m_stretch.end) {
        m_best = {};
        if (m_position - m_end < Resumed)
            lookBehindLastMatch();
        if (m_position < m_lastWindow)
            lookIntoIndex();
        if (m_best.spared > 0)
            take(m_best.match);
        else
            ++m_position;
    }
}

/// Where the last match would go on, and around that place.
void ContentMatcher::lookBehindLastMatch()
{
    const quint64 wanted = wordAt(newAt(m_position));
    const auto standsAt = [&](qint64 oldPosition) {
        const qint64 offset = oldPosition - m_neighbourhoodBegin;
        return offset >= 0 && offset + LeastSame <= static_cast<qint64>(m_neighbourhood.size())
            && wordAt(m_neighbourhood.data() + offset) == wanted;
    };
    const qint64 expected = m_position + m_shift;
    if (standsAt(expected))
        consider(expected);
    if (m_position - m_end >= m_effort.nearPositions)
        return;
    // Not inside of the last match: that would be content that repeats itself, of which the index
    // knows the longest.
    const qint64 mostBefore = std::min<qint64>(m_effort.nearDistance, m_position - m_end);
    for (qint64 distance = 1; distance <= m_effort.nearDistance; ++distance) {
        if (standsAt(expected + distance))
            consider(expected + distance);
        if (distance <= mostBefore && standsAt(expected - distance))
            consider(expected - distance);
    }
}

void ContentMatcher::lookIntoIndex()
{
    const quint64 fingerprint = m_index.fingerprintOf(newAt(m_position));
    const bool isKept = m_index.keeps(fingerprint);
    if (isKept)
        m_lastKept = m_position;
    if (isKept || m_position - m_lastKept >= m_index.longestGap())
        m_index.lookUp(fingerprint, [this](qint64 oldPosition) { consider(oldPosition); });
}

/// Whether what stands at @p oldPosition is better than what has been found for the position.
void ContentMatcher::consider(qint64 oldPosition)
{
    const qint64 shared = compare(oldPosition);
    // Content that repeats itself reaches farther from where nothing of it is copied twice.
    if (shared > 0 && shared <= oldPosition)
        compare(oldPosition - shared);
}

/// Returns how far the match reaches into the last one.
qint64 ContentMatcher::compare(qint64 oldPosition)
{
    const qint64 after = sameAfter(m_position, oldPosition);
    if (after < LeastSame)
        return 0;
    // Into the last match only a little: it is as good where it is long.
    const qint64 ofLast = hasMatch() ? std::min(m_matches.back().length, Resumed) : 0;
    const qint64 before = sameBefore(m_position, oldPosition, m_position - m_end + ofLast);
    const Match match{m_position - before, oldPosition - before, before + after};
    const qint64 spared = this->spared(match);
    if (spared > m_best.spared)
        m_best = {match, spared};
    return m_end - match.position;
}

/// How much smaller @p match makes the delta. It may come in the stead of the last one.
qint64 ContentMatcher::spared(const Match &match) const
{
    qint64 spared = match.end() - std::max(match.position, m_end) - costOf(match);
    if (match.position > m_end)
        --spared; // a literal ends before it
    if (hasMatch() && match.position <= m_matches.back().position)
        spared += costOf(m_matches.back());
    return spared;
}

void ContentMatcher::take(const Match &match)
{
    if (hasMatch() && m_matches.back().end() > match.position) {
        Match &last = m_matches.back();
        last.length = match.position - last.position;
        if (last.length <= costOf(last))
            m_matches.pop_back();
    }
    m_matches.push_back(match);
    m_position = m_end = m_lastKept = match.end();
    m_shift = match.oldPosition - match.position;
    loadNeighbourhood();
}

void ContentMatcher::loadNeighbourhood()
{
    const qint64 expected = m_end + m_shift;
    const qint64 begin = std::clamp<qint64>(expected, 0, m_old.size());
    const qint64 end = std::clamp<qint64>(
        expected + m_effort.nearDistance + Resumed + LeastSame, begin, m_old.size());
    m_neighbourhoodBegin = begin;
    m_neighbourhood.resize(static_cast<std::size_t>(end - begin));
    if (!m_old.copy(begin, end - begin, m_neighbourhood.data()))
        m_neighbourhood.clear();
}

/// How many bytes from the positions on are the same, as far as the stretch goes.
qint64 ContentMatcher::sameAfter(qint64 position, qint64 oldPosition)
{
    const qint64 most = std::min(m_stretch.end - position, m_old.size() - oldPosition);
    qint64 same = 0;
    while (same < most) {
        const PagedView::Bytes bytes = m_old.at(oldPosition + same);
        const qint64 part = std::min(most - same, bytes.after);
        const qint64 found = sameBytes(newAt(position + same), bytes.data, part);
        same += found;
        if (found < part || part == 0)
            break;
    }
    return same;
}

/// The same for those before the positions.
qint64 ContentMatcher::sameBefore(qint64 position, qint64 oldPosition, qint64 most)
{
    most = std::min(most, oldPosition);
    qint64 same = 0;
    while (same < most) {
        const PagedView::Bytes bytes = m_old.at(oldPosition - same - 1);
        const qint64 part = std::min(most - same, bytes.after > 0 ? bytes.before + 1 : 0);
        const uchar *const one = newAt(position - same - 1);
        qint64 found = 0;
        while (found < part && one[-found] == bytes.data[-found])
            ++found;
        same += found;
        if (found < part || part == 0)
            break;
    }
    return same;
}

ContentMatchFinder::ContentMatchFinder(
    const SearchEffort &effort, const ContentIndex &index, OldFile &old)
    : m_effort(effort)
    , m_index(index)
    , m_old(old)
{
}

bool ContentMatchFinder::find(const Stretch &stretch,
    const std::vector<BlockRecord> & /*alignedSums*/, std::vector<Match> *matches, FileError *error)
{
    if (!hasContent())
        return true;
    auto view = m_old.takeView();
    if (view->error().isEmpty())
        ContentMatcher(m_effort, m_index, view->bytes(), stretch, matches).find();
    *error = view->error();
    m_old.giveBack(std::move(view));
    return error->isEmpty();
}

std::vector<Match> ContentMatchFinder::join(const Stretch & /*stretch*/,
    const std::vector<BlockRecord> & /*alignedSums*/, std::vector<Match> matches, qint64 /*from*/)
{
    return matches;
}

} // namespace Pellox
