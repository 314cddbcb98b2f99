// tarnwick-plot: the data commands of a results file (tarnwick -j) as an
// SVG chart, one panel a command: records completed per interval across
// the command, a failed record marked, the longest stall shaded with its
// length written on it. A failover shows as a dip with its cost on it.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>
#include <nlohmann/json.hpp>

#include "common/xml.h"

namespace {

using Json = nlohmann::json;

constexpr const char* kUsage =
    "Usage: tarnwick-plot [RESULTS-FILE]\n"
    "Draws each data command of a tarnwick -j results file (standard input\n"
    "without a file) as an SVG chart on standard output: records completed\n"
    "per interval, failed records, the longest stall and its length.\n";

constexpr double kWidth = 800;
constexpr double kPanelHeight = 240;
constexpr double kLeft = 60, kRight = 20, kTop = 40, kBottom = 40;
// Labels over the bars stay readable on a white outline.
constexpr const char* kHalo = " stroke=\"#fff\" stroke-width=\"3\" paint-order=\"stroke\"";
constexpr std::size_t kMaxIntervals = 100000;  // a hand-made file cannot make the chart endless

// A mark on the time axis: a failed record or a fault the file names.
struct Mark {
    double at_us;
    std::string label;
};

struct Panel {
    std::string title;
    double interval_us = 1;
    std::vector<double> completed;
    double stall_us = 0, stall_start_us = 0;
    std::vector<Mark> marks;
};

double number(const Json& event, const char* key) {
    auto found = event.find(key);
    return found != event.end() && found->is_number() ? found->get<double>() : 0.0;
}

std::string text(const Json& event, const char* key) {
    auto found = event.find(key);
    return found != event.end() && found->is_string() ? found->get<std::string>() : std::string();
}

__attribute__((format(printf, 1, 2))) std::string format(const char* pattern, ...) {
    char buffer[160];
    va_list args;
    va_start(args, pattern);
    std::vsnprintf(buffer, sizeof buffer, pattern, args);
    va_end(args);
    return buffer;
}

// A time as people read it: microseconds, milliseconds or seconds.
std::string duration(double us) {
    if (us < 1000) return format("%.0f us", us);
    if (us < 1e6) return format("%.3g ms", us / 1e3);
    return format("%.3g s", us / 1e6);
}

Panel panel_of(const Json& event) {
    Panel p;
    p.title = format("line %.0f: ", number(event, "line")) + xml_text(text(event, "command")) +
              format(", %.0f records at depth %.0f, %.3f MB/s, p99 %.0f us", number(event, "records"),
                     number(event, "depth"), number(event, "MB_per_s"), number(event, "lat_p99_us"));
    p.interval_us = std::max(1.0, number(event, "interval_us"));
    auto completed = event.find("completed");
    if (completed != event.end() && completed->is_array()) {
        for (const Json& count : *completed) {
            if (p.completed.size() == kMaxIntervals) break;
            p.completed.push_back(count.is_number() ? std::max(0.0, count.get<double>()) : 0.0);
        }
    }
    p.stall_us = std::max(0.0, number(event, "stall_us"));
    p.stall_start_us = std::max(0.0, number(event, "stall_start_us"));
    if (event.contains("failed_at_us")) {
        p.marks.push_back({number(event, "failed_at_us"), format("record failed, errno %.0f", number(event, "errno"))});
    }
    // Faults a driver-side source adds to the event: [{"at_us": T, "what": "..."}].
    auto faults = event.find("faults");
    if (faults != event.end() && faults->is_array()) {
        for (const Json& fault : *faults) {
            if (fault.is_object()) p.marks.push_back({number(fault, "at_us"), xml_text(text(fault, "what"))});
        }
    }
    return p;
}

void draw(const Panel& p, double top) {
    const double plot_w = kWidth - kLeft - kRight;
    const double plot_h = kPanelHeight - kTop - kBottom;
    const double span_us = std::max(1.0, static_cast<double>(p.completed.size()) * p.interval_us);
    const double most = std::max(1.0, *std::max_element(p.completed.begin(), p.completed.end()));
    const double base = top + kTop + plot_h;
    auto x = [&](double us) { return kLeft + std::clamp(us / span_us, 0.0, 1.0) * plot_w; };

    std::printf("<text x=\"%.1f\" y=\"%.1f\" font-size=\"13\">%s</text>\n", kLeft, top + 22, p.title.c_str());
    const double bar_w = plot_w / static_cast<double>(p.completed.size());
    for (std::size_t i = 0; i < p.completed.size(); ++i) {
        if (p.completed[i] <= 0) continue;
        const double h = p.completed[i] / most * plot_h;
        std::printf("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.2f\" height=\"%.1f\" fill=\"#4a7ab5\"/>\n",
                    kLeft + static_cast<double>(i) * bar_w, base - h, bar_w, h);
    }
    if (p.stall_us > 0) {
        const double x0 = x(p.stall_start_us), x1 = x(p.stall_start_us + p.stall_us);
        std::printf("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.2f\" height=\"%.1f\" fill=\"#f0a030\" "
                    "fill-opacity=\"0.35\"/>\n",
                    x0, top + kTop, std::max(1.0, x1 - x0), plot_h);
        std::printf("<text x=\"%.1f\" y=\"%.1f\" font-size=\"12\" fill=\"#a05000\"%s>longest stall %s</text>\n",
                    std::min(x0, kWidth - kRight - 160), top + kTop + 14, kHalo, duration(p.stall_us).c_str());
    }
    double label_y = top + kTop + 30;
    for (const Mark& m : p.marks) {
        const double at = x(m.at_us);
        std::printf("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#c00000\" stroke-width=\"2\"/>\n",
                    at, top + kTop, at, base);
        std::printf("<text x=\"%.1f\" y=\"%.1f\" font-size=\"12\" fill=\"#c00000\"%s>%s</text>\n",
                    std::min(at + 4, kWidth - kRight - 160), label_y, kHalo, m.label.c_str());
        label_y += 14;
    }
    // Axes: records per interval up the side, time since the first record along the bottom.
    std::printf("<path d=\"M%.1f %.1f V%.1f H%.1f\" stroke=\"#000\" fill=\"none\"/>\n", kLeft, top + kTop, base,
                kWidth - kRight);
    std::printf("<text x=\"%.1f\" y=\"%.1f\" font-size=\"11\" text-anchor=\"end\">%.0f</text>\n", kLeft - 4,
                top + kTop + 10, most);
    std::printf("<text x=\"%.1f\" y=\"%.1f\" font-size=\"11\" text-anchor=\"end\">0</text>\n", kLeft - 4, base);
    std::printf("<text x=\"%.1f\" y=\"%.1f\" font-size=\"11\">0</text>\n", kLeft, base + 14);
    std::printf("<text x=\"%.1f\" y=\"%.1f\" font-size=\"11\" text-anchor=\"end\">%s</text>\n", kWidth - kRight,
                base + 14, duration(span_us).c_str());
    std::printf("<text x=\"%.1f\" y=\"%.1f\" font-size=\"11\" text-anchor=\"middle\">records completed per %s"
                "</text>\n",
                kLeft + plot_w / 2, base + 28, duration(p.interval_us).c_str());
}

int plot(int argc, char** argv) {
    if (argc > 2 || (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0))) {
        std::fputs(kUsage, argc > 2 ? stderr : stdout);
        return argc > 2 ? 2 : 0;
    }
    const char* name = argc == 2 ? argv[1] : "standard input";
    std::ifstream file;
    if (argc == 2) {
        file.open(argv[1]);
        if (!file) {
            std::fprintf(stderr, "tarnwick-plot: cannot open '%s': %s\n", argv[1], std::strerror(errno));
            return 2;
        }
    }
    std::istream& input = argc == 2 ? static_cast<std::istream&>(file) : std::cin;
    std::vector<Panel> panels;
    std::string line;
    // A run cut short may leave a last line unfinished; lines that are not
    // a data command's object are passed over.
    while (std::getline(input, line)) {
        const Json event = Json::parse(line, nullptr, false);
        if (!event.is_object() || text(event, "event") != "data") continue;
        Panel p = panel_of(event);
        if (!p.completed.empty()) panels.push_back(std::move(p));
    }
    if (panels.empty()) {
        std::fprintf(stderr, "tarnwick-plot: no data command with completed records in %s\n", name);
        return 1;
    }
    const double height = kPanelHeight * static_cast<double>(panels.size());
    std::printf("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" viewBox=\"0 0 %.0f %.0f\" "
                "font-family=\"sans-serif\">\n",
                kWidth, height, kWidth, height);
    std::printf("<rect width=\"100%%\" height=\"100%%\" fill=\"#fff\"/>\n");
    for (std::size_t i = 0; i < panels.size(); ++i) draw(panels[i], static_cast<double>(i) * kPanelHeight);
    std::printf("</svg>\n");
    return std::ferror(stdout) != 0 ? 2 : 0;
}

}  // namespace

// Only running out of memory throws (a results line of gigabytes): said on
// standard error as every other refusal is, with status 2.
int main(int argc, char** argv) {
    try {
        return plot(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "tarnwick-plot: %s\n", e.what());
    }
    return 2;
}
