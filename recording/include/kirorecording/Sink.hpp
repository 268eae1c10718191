#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kirorecording {

/// Where a recording goes. One thread at a time. Every failure is a std::system_error whose text
/// says where and why.
class Sink {
  public:
    Sink() = default;
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;
    virtual ~Sink();

    /// Appends all of `bytes`; a part of them may be there when it throws.
    void write(std::string_view bytes) { doWrite(bytes); }
    /// Keeps the first `size` bytes; what is written next follows them.
    void truncate(std::uint64_t size) { doTruncate(size); }
    /// Nothing is written any more. What a file system says late is thrown here.
    void close() { doClose(); }

  private:
    virtual void doWrite(std::string_view bytes) = 0;
    virtual void doTruncate(std::uint64_t size) = 0;
    virtual void doClose() = 0;
};

/// A file, made anew: what was there under its name is gone.
class FileSink : public Sink {
  public:
    /// `name`: what errors call the file, its path when empty. Throws std::system_error, and leaves
    /// the file as it was, when another sink writes it.
    explicit FileSink(const std::string& path, const std::string& name = {});
    ~FileSink() override;

  private:
    void doWrite(std::string_view bytes) override;
    void doTruncate(std::uint64_t size) override;
    void doClose() override;
    void begin() const;
    [[noreturn]] void fail() const;

    const std::string fName;
    int fFile;
};

}  // namespace kirorecording
