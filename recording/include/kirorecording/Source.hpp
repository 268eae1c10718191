#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kirorecording {

/// Bytes that may hold a recording. Any thread.
class Source {
  public:
    explicit Source(std::string name) : fName(std::move(name)) {}
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    virtual ~Source();

    /// For messages: a file's path.
    [[nodiscard]] const std::string& name() const noexcept { return fName; }
    [[nodiscard]] std::uint64_t size() const noexcept { return doSize(); }
    /// Exactly these bytes. REQUIRES: they lie within `size`. Throws std::system_error.
    [[nodiscard]] std::string read(std::uint64_t offset, std::size_t size) const;

  private:
    [[nodiscard]] virtual std::uint64_t doSize() const noexcept = 0;
    virtual void doRead(std::uint64_t offset, char* to, std::size_t size) const = 0;

    const std::string fName;
};

/// A file as long as it is when it is opened. Throws std::system_error, also for what is no file.
class FileSource : public Source {
  public:
    explicit FileSource(const std::string& path);
    ~FileSource() override;

    /// Whether a FileSink has it open, of this process or another one.
    [[nodiscard]] bool isBeingWritten() const noexcept;

  private:
    [[nodiscard]] std::uint64_t doSize() const noexcept override { return fSize; }
    void doRead(std::uint64_t offset, char* to, std::size_t size) const override;

    const int fFile;
    std::uint64_t fSize = 0;
};

/// Bytes in memory, which outlive this.
class MemorySource : public Source {
  public:
    explicit MemorySource(std::string_view bytes, std::string name = "memory")
        : Source(std::move(name)), fBytes(bytes) {}

  private:
    [[nodiscard]] std::uint64_t doSize() const noexcept override { return fBytes.size(); }
    void doRead(std::uint64_t offset, char* to, std::size_t size) const override;

    const std::string_view fBytes;
};

}  // namespace kirorecording
