#include "terminal/StandardError.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "base/Text.h"

namespace kelvane::tool {

namespace {

constexpr const char* ERASE = "\r\033[K"; // the line that is drawn

class Silence final : public Phase {
public:
    using Phase::Phase;

private:
    void show() override { }
};

class Timed : public Phase {
public:
    using Phase::Phase;

protected:
    // Of what goes over the line, where there is one.
    double bytesPerSecond() const { return perSecond(carried().value_or(worked())); }

    std::optional<double> secondsLeft() const
    {
        const double rate = perSecond(worked());
        const std::int64_t rest = std::max<std::int64_t>(0, total().value_or(0) - done()); // others tell of it, too
        const double left = rate > 0 ? static_cast<double>(rest) / rate : 0;
        return age() > std::chrono::seconds(1) ? std::optional(left) : std::nullopt; // before, a rate says little
    }

private:
    double perSecond(std::int64_t bytes) const
    {
        return age().count() > 0 ? static_cast<double>(bytes) / age().count() : 0;
    }
};

class Line final : public Timed {
public:
    using Timed::Timed;

    ~Line() override
    {
        if (m_isDrawn) {
            std::fputs(ERASE, stderr);
        }
    }

private:
    void show() override
    {
        m_isDrawn = true;
        if (total()) {
            draw(static_cast<double>(*total()));
        } else {
            std::fprintf(stderr, "\r%s ...\033[K", name().c_str());
        }
        std::fflush(stderr);
    }

    void draw(double total) const
    {
        constexpr int WIDTH = 30;
        const double share = total > 0 ? std::min(1.0, static_cast<double>(done()) / total) : 1;
        const std::string bar(static_cast<std::size_t>(share * WIDTH), '#');
        const double rate = bytesPerSecond();
        const std::optional<double> left = secondsLeft();
        std::array<char, 80> line; // with its end: a terminal would break a longer one
        std::snprintf(line.data(), line.size(), "%-8s [%-*s] %3.0f%%  %s/s  %s left", name().c_str(), WIDTH,
                      bar.c_str(), share * 100, humanSize(rate).c_str(),
                      rate > 0 && left ? humanTime(*left).c_str() : "?");
        std::fprintf(stderr, "\r%s\033[K", line.data());
    }

    bool m_isDrawn = false;
};

class JsonLines final : public Timed {
public:
    using Timed::Timed;

    ~JsonLines() override
    {
        try {
            showNow();
        } catch (const std::exception&) {
            // A line less; what is going on goes on.
        }
    }

private:
    void show() override
    {
        using Json = nlohmann::ordered_json;
        const std::optional<double> left = secondsLeft();
        Json line = {{"phase", name()},
                     {"done", done()},
                     {"total", total().value_or(0)},
                     {"bytesPerSecond", bytesPerSecond()},
                     {"secondsLeft", left ? Json(*left) : Json()}};
        if (const auto bytes = carried()) {
            line["onTheLine"] = *bytes;
        }
        const auto replacing = Json::error_handler_t::replace; // the phase may be another machine's
        std::fprintf(stderr, "%s\n", line.dump(-1, ' ', false, replacing).c_str());
        std::fflush(stderr);
    }
};

template <class Shown>
class StandardError final : public Reporter {
public:
    void note(const std::string& text) override
    {
        const char* const erase = std::is_same_v<Shown, Line> ? ERASE : "";
        std::fprintf(stderr, "%skelvane-hash: note: %s\n", erase, text.c_str());
    }

private:
    std::unique_ptr<Phase> phaseOf(const std::string& name, std::optional<std::int64_t> total) override
    {
        return std::make_unique<Shown>(name, total);
    }
};

} // namespace

std::unique_ptr<Reporter> standardError(ProgressMode mode)
{
    if (mode == ProgressMode::Json) {
        return std::make_unique<StandardError<JsonLines>>();
    }
    if (mode == ProgressMode::None || ::isatty(STDERR_FILENO) == 0) {
        return std::make_unique<StandardError<Silence>>();
    }
    return std::make_unique<StandardError<Line>>();
}

} // namespace kelvane::tool
