#pragma once

#include "core/pipeline/PipelineManager.h"

namespace veltra::studio {

// The finished run's sound, rung only while the Studio is the active application.
class QtSystemSounds final : public SystemSounds {
public:
    bool applicationIsActive() const override;
    void play(std::string_view name) override;
};

} // namespace veltra::studio
