// The health iterations of a run, and what else happened meanwhile.
#pragma once

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "HealthLine.h"

/// What became of an iteration.
enum class HealthStep { Nothing, FailOpen, CheckFailed, Recovered };

struct HealthRow {
    double time = 0;  ///< Seconds since 1970, when the iteration began.
    HealthIteration iteration;
    HealthStep step = HealthStep::Nothing;
    bool resumes = false;  ///< Calls between it and the one before were not evaluated, or the clock was set back.
};

/// Anything else, in UTF-8. The same error again and again is one note.
struct HealthNote {
    enum class Kind { Mark, Restart, Event, Notification, Error };
    Kind kind;
    double time;   ///< Seconds since 1970.
    double until;  ///< Of the last one.
    int count;
    std::string text;
};

/// Any thread.
class HealthHistory {
public:
    void AddIteration(double time, const HealthIteration &iteration);
    void AddNote(HealthNote::Kind kind, double time, std::string text);

    std::vector<HealthRow> Rows() const;
    std::vector<HealthNote> Notes() const;
    /// Notes that came when there were too many already.
    std::size_t NotesLeftOut() const;

private:
    mutable std::mutex m_lock;
    std::vector<HealthRow> m_rows;
    std::vector<HealthNote> m_notes;
    std::size_t m_notesLeftOut = 0;
    std::size_t m_longBytes = 0;  ///< Of long texts.
};

/// What the iteration was, from the one before it; null for the first.
HealthStep ClassifyHealthStep(const HealthIteration *before, const HealthIteration &iteration);

/// Leaves out rows between which little happens: transitions stay, and of the others the highest and lowest
/// values of each metric in every stretch. Of too many transitions some stay, from the whole run.
/// @param limit  no more rows, if that is possible; from 100.
std::vector<HealthRow> ThinOut(const std::vector<HealthRow> &rows, std::size_t limit);
