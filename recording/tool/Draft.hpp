#pragma once

#include <string>

namespace recording_tool {

/// A new file, or folder, beside one that is to be made or replaced. Nothing is seen of it under
/// its name before it is whole. Removed with this unless it was kept.
class Draft {
  public:
    enum class Kind { kFile, kFolder };

    /// Throws std::system_error, also where what is there is no file. A symbolic link's target is
    /// meant. Only its owner may look into it; `keep` lets others.
    explicit Draft(std::string target, Kind kind = Kind::kFile);
    Draft(const Draft&) = delete;
    Draft& operator=(const Draft&) = delete;
    ~Draft();

    [[nodiscard]] const std::string& path() const noexcept { return fPath; }
    /// Puts it in its place; a folder only where there is none, or an empty one. With the
    /// permissions of the file `like`; without one those that the user's new files have. Throws
    /// std::system_error.
    void keep(const std::string& like = {});

    /// Removes all that there are; none is kept any more. Any thread, since the program is to end.
    static void abandonAll() noexcept;

  private:
    void make();

    const std::string fName;  ///< as it was given, for messages
    const Kind fKind;
    std::string fTarget;
    std::string fPath;  ///< empty: it is kept
};

}  // namespace recording_tool
