// The live display of a `get` run and its summary table, both fitted to the
// terminal's width.
#pragma once

#include <cstdio>
#include <memory>
#include <vector>

#include "Transfer.h"

namespace tool {

using TransferList = std::vector<std::unique_ptr<Transfer>>;

// On a terminal: one redrawn row per running transfer and one for the whole
// set. Otherwise: one line per start and per end.
class ProgressView {
public:
    ProgressView(FILE* out, const TransferList& transfers);
    void Refresh();
    void Finish();

private:
    void ReportEvents();
    void DrawLive();
    void EraseLive();

    FILE* m_Out;
    const TransferList& m_Transfers;
    bool m_Live;
    int m_LiveLines = 0;
    std::vector<bool> m_Reported, m_Started;
    Clock::time_point m_Begin = Clock::now();
};

// The table of all transfers: status, HTTP version, size, time, speed, result
// and where the body went.
void PrintSummary(FILE* out, const TransferList& transfers);

// `text` cut to `width` columns by dropping its middle; unchanged when
// `width` is 0 (no limit).
std::string FitWidth(const std::string& text, size_t width);

// The width of the terminal behind `out` (or $COLUMNS); 0 when there is none.
size_t TerminalWidth(FILE* out);

}  // namespace tool
