/*
 * The figures of a benchmark run: each one a ratio of a measured path to its
 * baseline (or a plain value such as milliseconds to ready), one sample per
 * repetition, with the goal it is held to. bench/BenchMain.cpp prints them as
 * a table (median and range of every figure) and saves them as JSON.
 */
#ifndef TILVANE_BENCH_FIGURES_H
#define TILVANE_BENCH_FIGURES_H

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <string>

/* True in the short run (--short): fewer pairs per repetition and smaller
 * databases, to show that the program works. */
bool ShortRun();
/* Scales a count down in the short run. */
int Pairs(int full, int shortRun);

/* One repetition's ratio of subject to baseline seconds (goal 0: no goal,
 * the figure is shown for information). */
void RecordRatio(const std::string& figure, double goal, double subjectSeconds, double baselineSeconds,
                 const std::string& baselineName);
/* One repetition's value of a figure that is not a ratio (unit "ms", "MiB"). */
void RecordValue(const std::string& figure, double goal, const std::string& unit, double value);

void PrintFigures(std::FILE* out);
bool SaveFigures(const std::string& path);

/*
 * Times `subject` and `baseline` in alternation (A B A B ...), `pairs` times
 * per repetition, and records the repetition's ratio. Each callable returns
 * false on failure, which ends the benchmark with an error. Register the
 * benchmark with ->Iterations(1) so that one call is one repetition.
 */
inline void NothingBetween() {}

/* `between` runs untimed after each side (e.g. to put the table back). */
template <typename Subject, typename Baseline, typename Between = void (*)()>
void RunInterleaved(benchmark::State& state, const std::string& figure, double goal, int pairs, Subject&& subject,
                    Baseline&& baseline, const std::string& baselineName, Between&& between = NothingBetween)
{
    using Clock = std::chrono::steady_clock;
    double subjectSeconds = 0;
    double baselineSeconds = 0;
    bool failed = false;
    for (auto _ : state) {
        for (int i = 0; i < pairs && !failed; ++i) {
            const Clock::time_point start = Clock::now();
            const bool subjectOk = subject();
            const Clock::time_point subjectEnd = Clock::now();
            between();
            const Clock::time_point middle = Clock::now();
            const bool baselineOk = baseline();
            const Clock::time_point end = Clock::now();
            between();
            if (!subjectOk || !baselineOk) {
                state.SkipWithError(subjectOk ? "the baseline failed" : "the measured path failed");
                failed = true;
                break;
            }
            subjectSeconds += std::chrono::duration<double>(subjectEnd - start).count();
            baselineSeconds += std::chrono::duration<double>(end - middle).count();
        }
    }
    if (failed || pairs <= 0) {
        return;
    }
    state.counters["subject_us"] = subjectSeconds / pairs * 1e6;
    state.counters["baseline_us"] = baselineSeconds / pairs * 1e6;
    state.counters["ratio"] = baselineSeconds > 0 ? subjectSeconds / baselineSeconds : 0;
    RecordRatio(figure, goal, subjectSeconds / pairs, baselineSeconds / pairs, baselineName);
}

/*
 * As RunInterleaved, but each pair runs in the order of its number: A B, then
 * B A. Where both sides are the same kind of work on the same state, the side
 * that runs first in a pair can be slower for that alone (the first of two
 * like requests warms what the second finds warm); alternating the order
 * charges both sides with it alike.
 */
inline void NothingBefore(bool /*subject*/) {}

/* `before` runs untimed before each side, told whether the subject is next. */
template <typename Subject, typename Baseline, typename Before = void (*)(bool)>
void RunAlternating(benchmark::State& state, const std::string& figure, double goal, int pairs, Subject&& subject,
                    Baseline&& baseline, const std::string& baselineName, Before&& before = NothingBefore)
{
    using Clock = std::chrono::steady_clock;
    double seconds[2] = {0, 0};
    bool failed = false;
    auto timed = [&](int side) {
        before(side == 0);
        const Clock::time_point start = Clock::now();
        const bool ok = side == 0 ? subject() : baseline();
        seconds[side] += std::chrono::duration<double>(Clock::now() - start).count();
        return ok;
    };
    for (auto _ : state) {
        for (int i = 0; i < pairs && !failed; ++i) {
            const int first = i % 2;
            failed = !timed(first) || !timed(1 - first);
        }
    }
    if (failed || pairs <= 0) {
        state.SkipWithError("a side failed");
        return;
    }
    state.counters["subject_us"] = seconds[0] / pairs * 1e6;
    state.counters["baseline_us"] = seconds[1] / pairs * 1e6;
    state.counters["ratio"] = seconds[1] > 0 ? seconds[0] / seconds[1] : 0;
    RecordRatio(figure, goal, seconds[0] / pairs, seconds[1] / pairs, baselineName);
}

#endif
