#include "Diagnostics.h"

namespace dsstore {

namespace {
thread_local ThreadDiagnosticHandlerBox* currentBox = nullptr;
} // namespace

DiagnosticHandlerStorage& DiagnosticHandlerStorage::shared() {
    static DiagnosticHandlerStorage storage;
    return storage;
}

void DiagnosticHandlerStorage::set(std::optional<DiagnosticHandler> handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

std::optional<DiagnosticHandler> DiagnosticHandlerStorage::get() const {
    std::lock_guard lock(mutex_);
    return handler_;
}

ThreadDiagnosticHandlerBox::ThreadDiagnosticHandlerBox(DiagnosticHandler handler)
    : handler_(std::move(handler)), previous_(currentBox) {
    currentBox = this;
}

ThreadDiagnosticHandlerBox::~ThreadDiagnosticHandlerBox() {
    currentBox = previous_;
}

void setDiagnosticHandler(std::optional<DiagnosticHandler> handler) {
    DiagnosticHandlerStorage::shared().set(std::move(handler));
}

void emitDiagnostic(std::string_view message) {
    if (currentBox && currentBox->handler_) {
        currentBox->handler_(message);
        return;
    }
    // Copied out so that a handler may replace the handler without deadlocking.
    if (const auto handler = DiagnosticHandlerStorage::shared().get(); handler && *handler) {
        (*handler)(message);
    }
}

} // namespace dsstore
