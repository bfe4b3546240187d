#pragma once

// Bundles: who the host is, which version a module has, and the texts of messages; any thread.

#include <concepts>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include <ZembraPlatform/NSError.h>
#include <ZembraPlatform/Value.h>

namespace zembra {

/// The domain of errors about a bundle's own files; `NSBundle::infoDictionaryError` makes them.
extern "C" ZEMBRA_EXPORT const char NSBundleErrorDomain[];

enum NSBundleErrorCode : NSInteger {
    NSBundleErrorFileNotFound = 1,  ///< No Info.plist stands where one is looked for.
    NSBundleErrorFileNotReadable = 2,
    NSBundleErrorFileMalformed = 3,  ///< It is too large, not UTF-8, no property list or no dictionary.
};

/// A module's configuration (its info dictionary) and its message catalogues.
///
/// The host application has the main bundle; a module that has texts or facts of its own makes one and states
/// with `ZMB_BUNDLE` which classes belong to it. A bundle may be used from any thread. Derive from it and
/// override `objectForInfoDictionaryKey` to answer every lookup anew.
class ZEMBRA_EXPORT NSBundle : public NSObject {
public:
    /// Where message catalogues lie, as gettext installs them:
    /// `<directory>/<language>/LC_MESSAGES/<table>.mo`.
    struct Catalogues {
        std::filesystem::path directory;
        std::string defaultTable;                ///< The table of a lookup that names none.
        std::string developmentLanguage = "en";  ///< Asked last.
    };

    /// The host's bundle. Unless `setMainBundle` was called, its info dictionary is read at the first call:
    /// `<executable>.Info.plist` beside the executable (found without /proc, too), else
    /// `../share/<executable>/Info.plist`; its catalogues are those of table `<executable>` in
    /// `../share/locale`. Any thread.
    [[nodiscard]] static std::shared_ptr<NSBundle> mainBundle();

    /// Puts `bundle` in the main bundle's place; `nullptr` brings back the one from the files. Call it at
    /// start-up, before the first request: whoever holds the earlier bundle keeps it. Any thread.
    static void setMainBundle(std::shared_ptr<NSBundle> bundle);

    /// The bundle that `Class` states with `ZMB_BUNDLE` for itself, else (also where a base class states one)
    /// the main bundle. Plain `NSError` belongs to the platform's bundle, which has no texts.
    template <class Class>
    [[nodiscard]] static std::shared_ptr<NSBundle> bundleForClass() {
        if constexpr (requires { Class::zembraBundle(std::type_identity<Class>{}); })
            return Class::zembraBundle(std::type_identity<Class>{});
        else
            return mainBundle();
    }

    /// A bundle handed over in code. `infoDictionary` is a dictionary; anything else counts as an empty one.
    explicit NSBundle(Value infoDictionary, std::optional<Catalogues> catalogues = std::nullopt);

    /// A bundle whose info dictionary is the XML property list in `infoFile` (256 KiB at most), read now. A
    /// file that cannot be used makes an empty dictionary and an `infoDictionaryError`.
    [[nodiscard]] static std::shared_ptr<NSBundle> bundleWithInfoFile(
        const std::filesystem::path& infoFile, std::optional<Catalogues> catalogues = std::nullopt);

    ~NSBundle() override;

    /// The value under `key` in the info dictionary, nothing where there is none.
    [[nodiscard]] virtual Value objectForInfoDictionaryKey(std::string_view key) const;

    /// Why the info dictionary is empty: the file that was looked for and what is wrong with it. `nullptr`
    /// where all is well.
    [[nodiscard]] NSErrorPtr infoDictionaryError() const { return infoDictionaryError_; }

    /// The text under `key` in the table (the default one unless named) in the first language that has it, of
    /// those that the list LANGUAGE and then LC_ALL, else LC_MESSAGES, else LANG ask for (16 at most), then
    /// the development language. Where none has it: `value`, and where that is absent or empty, the key
    /// itself. An absent key gives `value` or the empty text. It works in every locale, without `setlocale`.
    [[nodiscard]] virtual std::string localizedStringForKey(std::optional<std::string_view> key,
                                                            std::optional<std::string_view> value,
                                                            std::optional<std::string_view> table) const;

private:
    const Value infoDictionary_;
    const NSErrorPtr infoDictionaryError_;
    const std::optional<Catalogues> catalogues_;

    struct CatalogueCache;
    const std::unique_ptr<CatalogueCache> catalogueCache_;

    NSBundle(Value infoDictionary, NSErrorPtr infoDictionaryError, std::optional<Catalogues> catalogues);
};

}  // namespace zembra

/// States, inside `Class`, which bundle it belongs to: an expression that gives a
/// `std::shared_ptr<NSBundle>`, evaluated at every lookup. It holds for `Class` alone; a derived class states
/// its own.
#define ZMB_BUNDLE(Class, ...)                                                               \
public:                                                                                      \
    static ::std::shared_ptr<::zembra::NSBundle> zembraBundle(::std::type_identity<Class>) { \
        return __VA_ARGS__;                                                                  \
    }                                                                                        \
                                                                                             \
private:
