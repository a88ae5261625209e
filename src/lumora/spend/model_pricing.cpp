#include "lumora/spend/model_pricing.hpp"

#include <spdlog/spdlog.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "lumora/base/file_util.hpp"
#include "lumora/base/json_text.hpp"
#include "lumora/platform/file_stamp.hpp"
#include "lumora/platform/paths.hpp"
#include "lumora/spend/price_fetcher.hpp"

namespace lumora {

namespace {

namespace fs = std::filesystem;

// A price list is a few megabytes; anything far larger is not one.
constexpr size_t kMaxListBytes = 64u << 20;

std::string lower(std::string_view s) {
    std::string out(s);
    for (auto& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isWord(char c) { return isDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }

// Removes a trailing "[1m]"-style tag (one or more word characters in brackets).
bool dropTierTag(std::string& s) {
    if (s.size() < 3 || s.back() != ']') return false;
    auto open = s.rfind('[');
    if (open == std::string::npos || open + 2 > s.size() - 1) return false;
    for (size_t i = open + 1; i + 1 < s.size(); ++i) {
        if (!isWord(s[i])) return false;
    }
    s.erase(open);
    return true;
}

// Cloud regions and vendors that prefix a model id on hosted platforms.
bool dropRegionOrVendor(std::string& s) {
    static constexpr std::array<std::string_view, 20> prefixes = {
        "us.",     "eu.",         "apac.",   "au.",        "ca.",     "jp.",      "global.",
        "us-gov.", "anthropic.",  "openai.", "moonshotai.", "moonshot.", "bedrock.", "vertex_ai.",
        "azure.",  "google.",     "meta.",   "amazon.",    "mistral.", "deepseek."};
    bool any = false;
    for (bool again = true; again;) {
        again = false;
        for (auto p : prefixes) {
            if (s.size() > p.size() && s.compare(0, p.size(), p) == 0) {
                s.erase(0, p.size());
                again = any = true;
            }
        }
    }
    return any;
}

// "-v1:0" or "-v2" at the end (hosted platforms' revision of a model).
bool dropRevision(std::string& s) {
    auto dash = s.rfind("-v");
    if (dash == std::string::npos || dash + 2 >= s.size()) return false;
    size_t i = dash + 2;
    size_t digits = 0;
    while (i < s.size() && isDigit(s[i])) ++i, ++digits;
    if (digits == 0) return false;
    if (i < s.size() && s[i] == ':') {
        size_t j = i + 1;
        while (j < s.size() && isDigit(s[j])) ++j;
        if (j == i + 1) return false;
        i = j;
    }
    if (i != s.size()) return false;
    s.erase(dash);
    return true;
}

// "-20250514" or "-2025-08-07" at the end.
bool dropDate(std::string& s) {
    auto allDigits = [&](size_t from, size_t n) {
        for (size_t i = from; i < from + n; ++i) {
            if (!isDigit(s[i])) return false;
        }
        return true;
    };
    if (s.size() > 9 && s[s.size() - 9] == '-' && allDigits(s.size() - 8, 8)) {
        s.erase(s.size() - 9);
        return true;
    }
    if (s.size() > 11 && s[s.size() - 11] == '-' && allDigits(s.size() - 10, 4) && s[s.size() - 6] == '-' &&
        allDigits(s.size() - 5, 2) && s[s.size() - 3] == '-' && allDigits(s.size() - 2, 2)) {
        s.erase(s.size() - 11);
        return true;
    }
    return false;
}

// True when `key` is `name`'s prefix and ends where a new part of the name
// begins: before "@" or ":", or before "-"/"_" followed by a non-digit. A dot
// or a digit after the key means another version ("gpt-5" is not "gpt-5.5").
bool prefixAtBoundary(std::string_view key, std::string_view name) {
    if (key.empty() || key.size() >= name.size() || name.compare(0, key.size(), key) != 0) return false;
    char next = name[key.size()];
    if (next == '@' || next == ':') return true;
    if (next == '-' || next == '_') return key.size() + 1 < name.size() && !isDigit(name[key.size() + 1]);
    return false;
}

std::optional<ModelRates> lookUp(const std::string& name, const PriceLists::RateTable& table) {
    if (auto it = table.find(name); it != table.end()) return it->second;
    const auto& alias = ModelPricing::aliases();
    if (auto a = alias.find(name); a != alias.end()) {
        if (auto it = table.find(a->second); it != table.end()) return it->second;
    }
    return std::nullopt;
}

std::string sizeText(size_t bytes) {
    char buf[32];
    if (bytes >= 1'000'000) std::snprintf(buf, sizeof buf, "%.1f MB", static_cast<double>(bytes) / 1e6);
    else std::snprintf(buf, sizeof buf, "%.0f kB", std::ceil(static_cast<double>(bytes) / 1e3));
    return buf;
}

fs::path metaFile(const fs::path& cache) { return fs::path(cache.string() + ".meta.json"); }

PriceFetcher::Validator readValidator(const fs::path& cache) {
    PriceFetcher::Validator v;
    auto text = FileUtil::readFile(metaFile(cache), 64 * 1024);
    if (!text) return v;
    auto json = JsonText::parse(*text);
    if (!json || !json->is_object()) return v;
    if (auto it = json->find("etag"); it != json->end() && it->is_string()) v.etag = it->get<std::string>();
    if (auto it = json->find("lastModified"); it != json->end() && it->is_string())
        v.lastModified = it->get<std::string>();
    return v;
}

void writeValidator(const fs::path& cache, const PriceFetcher::Validator& v) {
    nlohmann::ordered_json j = nlohmann::ordered_json::object();
    if (v.etag) j["etag"] = *v.etag;
    if (v.lastModified) j["lastModified"] = *v.lastModified;
    FileUtil::writeAtomically(metaFile(cache), JsonText::dump(j, 2) + "\n");
}

std::string ageText(std::chrono::system_clock::duration age) {
    auto hours = std::chrono::duration_cast<std::chrono::hours>(age).count();
    if (hours >= 1) return std::to_string(hours) + " h ago";
    return std::to_string(std::max<long long>(0, std::chrono::duration_cast<std::chrono::minutes>(age).count())) +
           " min ago";
}

}  // namespace

const ModelPricing::RateTable& ModelPricing::bundledRates() {
    static const RateTable table = [] {
        RateTable t;
        auto row = [&](const char* name, double in, double out, std::optional<double> read,
                       std::optional<double> write) { t[name] = ModelRates{in, out, read, write}; };
        row("claude-fable-5", 15, 75, 1.5, 18.75);
        row("claude-opus-4-8", 15, 75, 1.5, 18.75);
        row("claude-opus-4-7", 15, 75, 1.5, 18.75);
        row("claude-opus-4-6", 15, 75, 1.5, 18.75);
        row("claude-sonnet-5", 3, 15, 0.3, 3.75);
        row("claude-sonnet-4-5", 3, 15, 0.3, 3.75);
        row("claude-haiku-4-5", 1, 5, 0.1, 1.25);
        row("gpt-5", 1.25, 10, 0.125, std::nullopt);
        row("gpt-5.5", 5, 30, 0.5, std::nullopt);
        row("gpt-5.6", 5, 30, 0.5, std::nullopt);
        row("gpt-5.6-sol", 5, 30, 0.5, std::nullopt);
        row("gpt-5.6-terra", 2.5, 15, 0.25, std::nullopt);
        row("gpt-5.6-luna", 1, 6, 0.1, std::nullopt);
        row("gpt-5-codex", 1.25, 10, 0.125, std::nullopt);
        row("gpt-5.5-codex", 1.25, 10, 0.125, std::nullopt);
        row("gpt-5-mini", 0.25, 2, 0.025, std::nullopt);
        row("k3", 3, 15, 0.3, std::nullopt);
        row("kimi-k3", 3, 15, 0.3, std::nullopt);
        return t;
    }();
    return table;
}

const std::unordered_map<std::string, std::string>& ModelPricing::aliases() {
    static const std::unordered_map<std::string, std::string> map = {{"codex-auto-review", "gpt-5-codex"}};
    return map;
}

std::optional<ModelRates> ModelPricing::resolve(std::string_view model, const RateTable& table) {
    if (model.empty() || model.size() > 512) return std::nullopt;
    std::string name = lower(model);
    if (auto r = lookUp(name, table)) return r;
    dropTierTag(name);
    if (auto slash = name.rfind('/'); slash != std::string::npos) name.erase(0, slash + 1);
    dropRegionOrVendor(name);
    dropRevision(name);
    dropDate(name);
    if (name.empty()) return std::nullopt;
    if (auto r = lookUp(name, table)) return r;
    // The longest key that the name extends at a boundary.
    const ModelRates* best = nullptr;
    size_t bestLength = 0;
    for (const auto& [key, rates] : table) {
        if (key.size() > bestLength && prefixAtBoundary(key, name)) {
            best = &rates;
            bestLength = key.size();
        }
    }
    if (best) return *best;
    return std::nullopt;
}

std::vector<ModelPricing::Source> ModelPricing::defaultSources() {
    std::string prices = "https://raw.githubusercontent.com/BerriAI/litellm/main/model_prices_and_context_window.json";
    std::string catalogue = "https://models.dev/api.json";
    if (const char* base = std::getenv("LUMORA_PRICING_BASE"); base && *base) {
        std::string b(base);
        while (!b.empty() && b.back() == '/') b.pop_back();
        prices = b + "/model_prices_and_context_window.json";
        catalogue = b + "/api.json";
    }
    return {
        {"litellm", prices, "model_prices_and_context_window.json", PriceLists::parseModelPrices},
        {"models.dev", catalogue, "models-catalogue.json", PriceLists::parseModelsCatalogue},
    };
}

fs::path ModelPricing::openCodeCatalogueFile() {
    if (const char* p = std::getenv("LUMORA_OPENCODE_MODELS"); p && *p) return p;
    if (const char* cache = std::getenv("XDG_CACHE_HOME"); cache && *cache == '/')
        return fs::path(cache) / "opencode" / "models.json";
    return Paths::home() / ".cache" / "opencode" / "models.json";
}

ModelPricing& ModelPricing::shared() {
    static ModelPricing pricing(Paths::pricingFolder(), defaultSources(), openCodeCatalogueFile());
    return pricing;
}

ModelPricing::ModelPricing(fs::path cacheFolder, std::vector<Source> sources, std::optional<fs::path> localCatalogue)
    : cacheFolder_(std::move(cacheFolder)), sources_(std::move(sources)), localCatalogue_(std::move(localCatalogue)) {}

void ModelPricing::loadIfNeeded() {
    if (loaded_) return;
    loaded_ = true;
    fetched_.assign(sources_.size(), std::nullopt);
    for (size_t i = 0; i < sources_.size(); ++i) {
        auto text = FileUtil::readFile(cacheFile(sources_[i]), kMaxListBytes);
        if (!text) continue;
        fetched_[i] = sources_[i].parse(*text);
        if (!fetched_[i]) spdlog::warn("pricing: the cached {} list does not parse; ignoring it", sources_[i].name);
    }
    rebuild();
}

void ModelPricing::rebuild() {
    table_ = bundledRates();
    for (const auto& list : fetched_) {
        if (!list) continue;
        for (const auto& [name, rates] : *list) table_[name] = rates;
    }
    if (localCatalogue_) {
        if (auto text = FileUtil::readFile(*localCatalogue_, kMaxListBytes)) {
            if (auto local = PriceLists::parseModelsCatalogue(*text)) {
                for (const auto& [name, rates] : *local) table_.emplace(name, rates);
            }
        }
    }
    memo_.clear();
    generation_.fetch_add(1);
}

std::optional<ModelRates> ModelPricing::rates(std::string_view model) {
    std::lock_guard lock(mutex_);
    loadIfNeeded();
    std::string key(model);
    if (auto it = memo_.find(key); it != memo_.end()) return it->second;
    auto found = resolve(model, table_);
    if (memo_.size() < 4096) memo_.emplace(std::move(key), found);
    return found;
}

std::vector<std::string> ModelPricing::refresh(bool force, std::chrono::seconds maxAge,
                                               const std::atomic<bool>* cancel) {
    std::vector<Source> sources;
    std::vector<bool> cacheUsable;
    {
        std::lock_guard lock(mutex_);
        loadIfNeeded();
        sources = sources_;
        for (const auto& f : fetched_) cacheUsable.push_back(f.has_value());
    }
    if (cacheFolder_.parent_path() == Paths::supportFolder()) Paths::ensureSupportFolder();
    std::error_code ec;
    fs::create_directories(cacheFolder_, ec);

    std::vector<std::string> lines;
    auto now = std::chrono::system_clock::now();
    for (size_t i = 0; i < sources.size(); ++i) {
        const auto& source = sources[i];
        fs::path file = cacheFile(source);
        auto stamp = FileStamp::of(file);
        if (!force && stamp && cacheUsable[i] && now - stamp->modified() < maxAge) {
            lines.push_back(source.name + ": cached (fetched " + ageText(now - stamp->modified()) + ")");
            continue;
        }
        // A cached copy that does not parse must not be kept alive by a 304.
        PriceFetcher::Validator validator = cacheUsable[i] ? readValidator(file) : PriceFetcher::Validator{};
        auto result = PriceFetcher::fetch(source.url, validator, {}, cancel);
        std::optional<RateTable> parsed;
        if (result.outcome == PriceFetcher::Result::Outcome::fresh) {
            parsed = source.parse(result.body);
            if (!parsed) result.why = "the body does not parse";
        }
        if (parsed) {
            size_t models = parsed->size();
            auto written = FileUtil::writeAtomically(file, result.body);
            if (written.ok) writeValidator(file, result.validator);
            else spdlog::warn("pricing: could not save the {} list: {}", source.name, written.why);
            {
                std::lock_guard lock(mutex_);
                fetched_[i] = std::move(parsed);
                rebuild();
            }
            lines.push_back(source.name + ": fresh (fetched " + sizeText(result.body.size()) + ", " +
                            std::to_string(models) + " models)");
        } else if (result.outcome == PriceFetcher::Result::Outcome::notModified) {
            // Still current: the copy's age starts again.
            fs::last_write_time(file, fs::file_time_type::clock::now(), ec);
            lines.push_back(source.name + ": unchanged (304)");
        } else {
            spdlog::warn("pricing: fetching the {} list failed: {}", source.name, result.why);
            lines.push_back(source.name + ": fetch failed (kept cache)");
        }
    }
    return lines;
}

}  // namespace lumora
