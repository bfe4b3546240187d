// Bundles: the host's main bundle from its files, info dictionaries, and the lookup of messages; any thread.

#include <map>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include <sys/auxv.h>

#include <ZembraPlatform/NSBundle.h>

#include "bundles/MessageCatalogue.h"
#include "bundles/NSPropertyList.h"
#include "system/FileContents.h"

namespace zembra {

extern "C" const char NSBundleErrorDomain[] = "NSBundleErrorDomain";

namespace {

constexpr std::size_t kLargestInfoFile = 256u << 10;

NSErrorPtr infoError(NSBundleErrorCode code, const std::filesystem::path& file, const std::string& reason) {
    return NSError::errorWithDomain(
        NSBundleErrorDomain, code,
        Value::dictionary({{NSLocalizedDescriptionKey, "The bundle configuration " + file.string() +
                                                           " cannot be used: " + reason + "."}}));
}

NSErrorPtr infoError(const std::filesystem::path& file, const std::error_code& error) {
    if (error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory)
        return infoError(NSBundleErrorFileNotFound, file, "there is no such file");
    if (error == std::errc::file_too_large)
        return infoError(NSBundleErrorFileMalformed, file, "it is larger than 256 KiB");
    return infoError(NSBundleErrorFileNotReadable, file, error.message());
}

/// The process's main bundle: the one that the host handed over, else the one from the files.
struct MainBundle {
    std::mutex mutex;
    std::shared_ptr<NSBundle> bundle;
};

MainBundle& mainBundleSlot() {
    static auto* const slot = new MainBundle;  // never destroyed: threads may ask until the process has ended
    return *slot;
}

/// The program's file. Where there is no /proc, the path that it was started by, which is relative to the
/// folder of that time.
std::filesystem::path executablePath() {
    std::error_code error;
    auto path = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error) return path;
    // The auxiliary vector holds addresses as numbers. NOLINTNEXTLINE(performance-no-int-to-ptr)
    const auto* const started = reinterpret_cast<const char*>(::getauxval(AT_EXECFN));
    return started == nullptr ? std::filesystem::path() : std::filesystem::weakly_canonical(started, error);
}

std::shared_ptr<NSBundle> bundleFromFiles() {
    std::error_code error;
    const std::filesystem::path executable = executablePath();
    const std::filesystem::path name = executable.filename();
    const std::filesystem::path share = executable.parent_path().parent_path() / "share";

    std::filesystem::path infoFile = executable;
    infoFile += ".Info.plist";
    if (const auto installed = share / name / "Info.plist";
        !std::filesystem::exists(infoFile, error) && std::filesystem::exists(installed, error))
        infoFile = installed;
    return NSBundle::bundleWithInfoFile(infoFile, NSBundle::Catalogues{share / "locale", name.string()});
}

}  // namespace

struct ZEMBRA_HIDDEN NSBundle::CatalogueCache {
    std::mutex mutex;
    std::map<std::filesystem::path, std::optional<MessageCatalogue>> catalogues;

    /// The text under `key` in the catalogue that `file` holds.
    std::optional<std::string> find(const std::filesystem::path& file, std::string_view key) {
        const std::lock_guard lock(mutex);
        const auto [entry, isNew] = catalogues.try_emplace(file);
        if (isNew) entry->second = MessageCatalogue::read(file);
        const auto text = entry->second ? entry->second->find(key) : std::nullopt;
        return text ? std::optional(std::string(*text)) : std::nullopt;
    }
};

std::shared_ptr<NSBundle> NSBundle::mainBundle() {
    MainBundle& slot = mainBundleSlot();
    const std::lock_guard lock(slot.mutex);
    if (!slot.bundle) slot.bundle = bundleFromFiles();
    return slot.bundle;
}

void NSBundle::setMainBundle(std::shared_ptr<NSBundle> bundle) {
    MainBundle& slot = mainBundleSlot();
    const std::lock_guard lock(slot.mutex);
    slot.bundle.swap(bundle);
}

NSBundle::NSBundle(Value infoDictionary, std::optional<Catalogues> catalogues)
    : NSBundle(std::move(infoDictionary), nullptr, std::move(catalogues)) {}

NSBundle::NSBundle(Value infoDictionary, NSErrorPtr infoDictionaryError, std::optional<Catalogues> catalogues)
    : infoDictionary_(std::move(infoDictionary)),
      infoDictionaryError_(std::move(infoDictionaryError)),
      catalogues_(std::move(catalogues)),
      catalogueCache_(std::make_unique<CatalogueCache>()) {}

std::shared_ptr<NSBundle> NSBundle::bundleWithInfoFile(const std::filesystem::path& infoFile,
                                                       std::optional<Catalogues> catalogues) {
    Value dictionary;
    NSErrorPtr why;
    std::error_code error;
    const std::string contents = contentsOfFile(infoFile, kLargestInfoFile, error);
    if (error) {
        why = infoError(infoFile, error);
    } else {
        std::string reason;
        dictionary = dictionaryWithPropertyList(contents, reason);
        if (dictionary.isNothing()) why = infoError(NSBundleErrorFileMalformed, infoFile, reason);
    }
    return std::shared_ptr<NSBundle>(
        new NSBundle(std::move(dictionary), std::move(why), std::move(catalogues)));
}

NSBundle::~NSBundle() = default;

std::shared_ptr<NSBundle> NSError::zembraBundle(std::type_identity<NSError>) {
    static const auto* const bundle = new std::shared_ptr<NSBundle>(std::make_shared<NSBundle>(Value()));
    return *bundle;  // never destroyed: errors are made until the process has ended
}

Value NSBundle::objectForInfoDictionaryKey(std::string_view key) const {
    return infoDictionary_[key];
}

std::string NSBundle::localizedStringForKey(std::optional<std::string_view> key,
                                            std::optional<std::string_view> value,
                                            std::optional<std::string_view> table) const {
    if (!key) return std::string(value.value_or(""));
    if (catalogues_) {
        const std::string_view name = table ? *table : std::string_view(catalogues_->defaultTable);
        const bool isFileName =
            name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
        std::vector<std::string> languages = languagesFromEnvironment();
        languages.push_back(catalogues_->developmentLanguage);
        for (const std::string& language : languages) {
            if (!isFileName || key->empty()) break;
            const auto file = catalogues_->directory / language / "LC_MESSAGES" / (std::string(name) + ".mo");
            if (auto text = catalogueCache_->find(file, *key)) return *std::move(text);
        }
    }
    return std::string(value && !value->empty() ? *value : *key);
}

}  // namespace zembra
