#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <string_view>

namespace dsstore {

// Receives the module's notes about things it tolerated or adjusted (odd values, gaps in the
// allocator, records larger than a page). Reading and writing never depend on it.
using DiagnosticHandler = std::function<void(std::string_view message)>;

// The process-wide handler, read and replaced under its lock.
class DiagnosticHandlerStorage {
public:
    static constexpr std::string_view key = "com.velmora.dsstore.diagnostic-handler";

    static DiagnosticHandlerStorage& shared();

    void set(std::optional<DiagnosticHandler> handler);
    std::optional<DiagnosticHandler> get() const;

private:
    mutable std::mutex mutex_;
    std::optional<DiagnosticHandler> handler_;
};

// Routes the calling thread's diagnostics to its own handler while it exists, ahead of the
// process-wide one; the previous override comes back when it is destroyed.
class ThreadDiagnosticHandlerBox {
public:
    explicit ThreadDiagnosticHandlerBox(DiagnosticHandler handler);
    ~ThreadDiagnosticHandlerBox();
    ThreadDiagnosticHandlerBox(const ThreadDiagnosticHandlerBox&) = delete;
    ThreadDiagnosticHandlerBox& operator=(const ThreadDiagnosticHandlerBox&) = delete;

private:
    friend void emitDiagnostic(std::string_view message);

    DiagnosticHandler handler_;
    ThreadDiagnosticHandlerBox* previous_;
};

void setDiagnosticHandler(std::optional<DiagnosticHandler> handler);
// Passes a message to this thread's override, else to the process-wide handler, else drops it.
void emitDiagnostic(std::string_view message);

} // namespace dsstore
