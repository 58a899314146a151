#include "HealthHistory.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <utility>

namespace {

constexpr std::size_t kMaxNotes = 1000;
constexpr std::size_t kMaxNoteBytes = 300;
/// An event may have a whole log as its text, whose end matters most. These limit one text and all of them.
constexpr std::size_t kMaxEventBytes = 20'000;
constexpr std::size_t kMaxLongBytes = 400'000;
constexpr std::size_t kHeadBytes = 100;
/// A failing iteration logs it in several lines.
constexpr std::size_t kErrorsInTurn = 8;

/// The start of the character at the place, or the end of the text.
std::size_t CharacterAt(const std::string &text, std::size_t place) {
    place = std::min(place, text.size());
    while (place > 0 && place < text.size() && (static_cast<unsigned char>(text[place]) & 0xC0U) == 0x80U)
        --place;
    return place;
}

/// Truncated at a character boundary.
std::string Shortened(const std::string &text, std::size_t limit) {
    return text.size() <= limit ? text : text.substr(0, CharacterAt(text, limit)) + "...";
}

/// Without its middle.
std::string WithoutMiddle(const std::string &text, std::size_t limit) {
    if (text.size() <= limit)
        return text;
    return text.substr(0, CharacterAt(text, kHeadBytes)) + " ... " +
           text.substr(CharacterAt(text, text.size() - (limit - kHeadBytes)));
}

bool Resumes(const HealthRow &before, double time, double interval) {
    const double passed = time - before.time;
    if (passed < 0)
        return true;
    constexpr double roundedSeconds = 0.5;
    if (interval > 0)
        return passed > interval + roundedSeconds;
    // A module's first iteration has no predecessor.
    constexpr double pausesAtMost = 1.5;
    return before.iteration.interval > 0 && passed > before.iteration.interval * pausesAtMost;
}

/// The rows that characterise a stretch: each metric's lowest and highest value.
void KeepExtremes(const std::vector<HealthRow> &rows, std::size_t begin, std::size_t end, std::set<std::size_t> &kept) {
    for (std::size_t metric = 0; metric < kHealthMetricNames.size(); ++metric) {
        const auto byValue = [metric](const HealthRow &left, const HealthRow &right) {
            return left.iteration.metrics[metric].value < right.iteration.metrics[metric].value;
        };
        const auto first = rows.begin() + static_cast<std::ptrdiff_t>(begin);
        const auto last = rows.begin() + static_cast<std::ptrdiff_t>(end);
        const auto [lowest, highest] = std::minmax_element(first, last, byValue);
        kept.insert(static_cast<std::size_t>(lowest - rows.begin()));
        kept.insert(static_cast<std::size_t>(highest - rows.begin()));
    }
}

// Rows that no neighbour can replace in the chart, most important first.

using Test = bool (*)(const HealthRow &before, const HealthRow &row);

bool ChangesState(const HealthRow &before, const HealthRow &row) {
    return row.iteration.endsActive != before.iteration.endsActive || row.step == HealthStep::FailOpen ||
           row.step == HealthStep::Recovered;
}

bool ChecksOrResumes(const HealthRow &, const HealthRow &row) {
    return row.step == HealthStep::CheckFailed || row.resumes;
}

/// NaN equals itself here.
bool Differ(double left, double right) {
    return left != right && !(std::isnan(left) && std::isnan(right));
}

bool ChangesLimit(const HealthRow &before, const HealthRow &row) {
    for (std::size_t metric = 0; metric < kHealthMetricNames.size(); ++metric)
        if (Differ(row.iteration.metrics[metric].limit, before.iteration.metrics[metric].limit))
            return true;
    return false;
}

std::vector<std::size_t> Find(const std::vector<HealthRow> &rows, Test test) {
    std::vector<std::size_t> found;
    for (std::size_t i = 1; i < rows.size(); ++i)
        if (test(rows[i - 1], rows[i]))
            found.push_back(i);
    return found;
}

/// Keeps the rows, each with its predecessor; if there are too many, an even selection including the last.
void KeepPairs(const std::vector<std::size_t> &found, std::size_t most, std::set<std::size_t> &kept) {
    const std::size_t room = most > kept.size() ? (most - kept.size()) / 2 : 0;
    const std::size_t count = std::min(found.size(), room);
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t index = found[(found.size() * (i + 1) - 1) / count];
        kept.insert(index - 1);
        kept.insert(index);
    }
}

void KeepWhatMatters(const std::vector<HealthRow> &rows, std::size_t most, std::set<std::size_t> &kept) {
    kept.insert(0);
    kept.insert(rows.size() - 1);
    for (const Test test : {ChangesState, ChecksOrResumes, ChangesLimit})
        KeepPairs(Find(rows, test), most, kept);
}

}  // namespace

HealthStep ClassifyHealthStep(const HealthIteration *before, const HealthIteration &iteration) {
    if (!iteration.startsActive)
        return iteration.endsActive ? HealthStep::FailOpen : HealthStep::Nothing;
    if (!iteration.endsActive)
        return HealthStep::Recovered;
    // A wait shorter than a minute is none; every iteration is a check then.
    if (iteration.waitMinutes == 0)
        return HealthStep::CheckFailed;
    const bool waited = before != nullptr && before->startsActive && before->waitMinutes != 0;
    return waited && iteration.nextMinutes > before->nextMinutes ? HealthStep::CheckFailed : HealthStep::Nothing;
}

void HealthHistory::AddIteration(double time, const HealthIteration &iteration) {
    const std::lock_guard<std::mutex> guard(m_lock);
    const HealthRow *before = m_rows.empty() ? nullptr : &m_rows.back();
    HealthRow row{time, iteration, ClassifyHealthStep(before != nullptr ? &before->iteration : nullptr, iteration),
                  before != nullptr && Resumes(*before, time, iteration.interval)};
    m_rows.push_back(row);
}

void HealthHistory::AddNote(HealthNote::Kind kind, double time, std::string text) {
    const std::lock_guard<std::mutex> guard(m_lock);
    if (kind == HealthNote::Kind::Event)
        text = WithoutMiddle(text, m_longBytes + text.size() > kMaxLongBytes ? kMaxNoteBytes : kMaxEventBytes);
    else
        text = Shortened(text, kMaxNoteBytes);
    if (kind == HealthNote::Kind::Error) {
        ++m_errors;
        const auto end = m_notes.rbegin() + static_cast<std::ptrdiff_t>(std::min(m_notes.size(), kErrorsInTurn));
        const auto same = std::find_if(m_notes.rbegin(), end,
                                       [&](const HealthNote &note) { return note.kind == kind && note.text == text; });
        if (same != end) {
            ++same->count;
            same->until = time;
            return;
        }
    }
    if (m_notes.size() >= kMaxNotes) {
        ++m_notesLeftOut;
        return;
    }
    m_longBytes += text.size() > kMaxNoteBytes ? text.size() : 0;
    m_notes.push_back({kind, time, time, 1, std::move(text)});
}

std::vector<HealthRow> HealthHistory::Rows() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_rows;
}

std::vector<HealthNote> HealthHistory::Notes() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_notes;
}

std::size_t HealthHistory::NotesLeftOut() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_notesLeftOut;
}

std::size_t HealthHistory::Errors() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_errors;
}

std::vector<HealthRow> ThinOut(const std::vector<HealthRow> &rows, std::size_t limit) {
    if (rows.size() <= limit)
        return rows;
    std::set<std::size_t> kept;
    KeepWhatMatters(rows, limit / 2, kept);
    const std::size_t stretches = std::max<std::size_t>(1, limit / 2 / (2 * kHealthMetricNames.size()));
    for (std::size_t i = 0; i < stretches; ++i)
        KeepExtremes(rows, rows.size() * i / stretches, rows.size() * (i + 1) / stretches, kept);
    std::vector<HealthRow> result;
    result.reserve(kept.size());
    for (const std::size_t index : kept)
        result.push_back(rows[index]);
    return result;
}
