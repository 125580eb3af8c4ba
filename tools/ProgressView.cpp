#include "ProgressView.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace tool {

size_t TerminalWidth(FILE* out) {
    struct winsize ws = {};
    if (IsTerminal(out) && ::ioctl(::fileno(out), TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) return ws.ws_col;
    long columns = 0;
    const char* env = std::getenv("COLUMNS");
    if (env != nullptr && ParseInt(env, 1, 10000, columns)) return static_cast<size_t>(columns);
    return IsTerminal(out) ? 80 : 0;
}

std::string FitWidth(const std::string& text, size_t width) {
    if (width == 0 || text.size() <= width) return text;
    if (width <= 3) return text.substr(0, width);
    const size_t keep = width - 3, head = keep / 2;
    return text.substr(0, head) + "..." + text.substr(text.size() - (keep - head));
}

namespace {

// At most this many rows of running transfers; the rest are counted.
const size_t kMaxLiveRows = 20;

std::string ClockText(double seconds) {
    const long s = static_cast<long>(seconds + 0.5);
    char text[32];
    if (s >= 3600) std::snprintf(text, sizeof(text), "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    else std::snprintf(text, sizeof(text), "%ld:%02ld", s / 60, s % 60);
    return text;
}

// "45%  12.3 MiB / 100.0 MiB  10.2 MiB/s  0:12 left", or without the parts
// that need the size when it is unknown.
std::string Figures(int64_t now, int64_t total, double secs) {
    const double rate = static_cast<double>(now) / std::max(secs, 1e-3);
    std::string text;
    if (total > 0) {
        char pct[8];
        std::snprintf(pct, sizeof(pct), "%3d%%", static_cast<int>(100.0 * static_cast<double>(now) / total));
        text = std::string(pct) + "  " + FormatBytes(now) + " / " + FormatBytes(total);
    } else {
        text = FormatBytes(now);
    }
    text += "  " + FormatRate(rate);
    if (total > 0 && rate > 0 && now < total) text += "  " + ClockText((total - now) / rate) + " left";
    return text;
}

// A row of `name` and `figures` in `width` columns (0: no limit).
std::string Row(const std::string& name, const std::string& figures, size_t width) {
    if (width == 0) return "  " + name + "  " + figures;
    const size_t room = width > figures.size() + 5 ? width - figures.size() - 5 : 10;
    return FitWidth("  " + FitWidth(name, std::max<size_t>(room, 10)) + "  " + figures, width - 1);
}

}  // namespace

ProgressView::ProgressView(FILE* out, const TransferList& transfers)
    : m_Out(out), m_Transfers(transfers), m_Live(IsTerminal(out)), m_Reported(transfers.size(), false),
      m_Started(transfers.size(), false) {}

void ProgressView::Refresh() {
    if (m_Live) EraseLive();
    ReportEvents();
    if (m_Live) DrawLive();
    std::fflush(m_Out);
}

void ProgressView::Finish() {
    Refresh();
    if (m_Live) EraseLive();
    std::fflush(m_Out);
}

void ProgressView::ReportEvents() {
    const size_t width = TerminalWidth(m_Out);
    for (size_t i = 0; i < m_Transfers.size(); ++i) {
        const Transfer& t = *m_Transfers[i];
        if (!m_Live && (t.running || t.finished) && !m_Started[i]) {
            m_Started[i] = true;
            std::fprintf(m_Out, "%s\n", FitWidth("start  " + t.url, width).c_str());
        }
        if (t.finished && !m_Reported[i]) {
            m_Reported[i] = true;
            std::string line = (t.Succeeded() ? "done   " : "failed ") + t.url + " (" +
                               std::to_string(t.facts.status) + ", " + FormatBytes(static_cast<double>(t.bytes)) + ")";
            std::fprintf(m_Out, "%s\n", FitWidth(line, width > 0 ? width - 1 : 0).c_str());
        }
    }
}

void ProgressView::DrawLive() {
    const size_t width = TerminalWidth(m_Out);
    const auto now = Clock::now();
    size_t running = 0, done = 0, failed = 0;
    int64_t bytes = 0;
    m_LiveLines = 0;
    for (const auto& tp : m_Transfers) {
        const Transfer& t = *tp;
        bytes += t.finished ? t.bytes : t.now.load();
        if (t.finished) {
            ++done;
            failed += !t.Succeeded();
        }
        if (!t.running || t.finished) continue;
        if (++running > kMaxLiveRows) continue;
        std::string row = Row(t.url, Figures(t.now, t.total, SecondsBetween(t.start, now)), width);
        std::fprintf(m_Out, "%s\033[K\n", row.c_str());
        ++m_LiveLines;
    }
    std::string all = std::to_string(done) + " of " + std::to_string(m_Transfers.size()) + " done";
    if (failed > 0) all += ", " + std::to_string(failed) + " failed";
    if (running > kMaxLiveRows) all += ", " + std::to_string(running - kMaxLiveRows) + " more running";
    std::string row = Row(all, Figures(bytes, 0, SecondsBetween(m_Begin, now)), width);
    std::fprintf(m_Out, "%s\033[K\n", row.c_str());
    ++m_LiveLines;
}

void ProgressView::EraseLive() {
    for (int i = 0; i < m_LiveLines; ++i) std::fprintf(m_Out, "\033[1A\033[2K");
    m_LiveLines = 0;
}

void PrintSummary(FILE* out, const TransferList& transfers) {
    const size_t width = TerminalWidth(out);
    const char* kRow = "%4s %4s %9s %7s %12s %-6s %s";
    char line[512];
    std::snprintf(line, sizeof(line), kRow, "code", "http", "size", "time", "speed", "result", "URL -> output");
    std::fprintf(out, "\n%s\n", line);
    for (const auto& tp : transfers) {
        const Transfer& t = *tp;
        // libcurl's own clock leaves out the time spent waiting for a connection slot.
        const double secs = std::max(t.facts.haveInfo && t.facts.info.totalUs > 0
                                         ? static_cast<double>(t.facts.info.totalUs) / 1e6
                                         : SecondsBetween(t.start, t.end),
                                     1e-6);
        const std::string code = t.facts.status > 0 ? std::to_string(t.facts.status) : "-";
        std::string version = HttpVersionText(t.facts.info.httpVersion);
        if (version == "0") version = "-";
        std::snprintf(line, sizeof(line), kRow, code.c_str(), version.c_str(),
                      FormatBytes(static_cast<double>(t.bytes)).c_str(), FormatSeconds(secs).c_str(),
                      FormatRate(static_cast<double>(t.bytes) / secs).c_str(), t.Succeeded() ? "ok" : "failed", "");
        const std::string fixed = line;
        const std::string where = t.shownAs.empty() ? "" : "-> " + t.shownAs;
        const size_t room = width > fixed.size() + 1 ? width - fixed.size() - 1 : 12;
        // On a narrow terminal the output goes on a line of its own: the URL
        // may be shortened, the name of the file never.
        if (width == 0 || t.url.size() + 1 + where.size() <= room) {
            std::fprintf(out, "%s%s %s\n", fixed.c_str(), t.url.c_str(), where.c_str());
        } else {
            std::fprintf(out, "%s%s\n", fixed.c_str(), FitWidth(t.url, room).c_str());
            if (!where.empty()) std::fprintf(out, "%*s%s\n", static_cast<int>(fixed.size()), "", where.c_str());
        }
    }
}

}  // namespace tool
