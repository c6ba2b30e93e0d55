#include "core/ipc/module_definition.h"

namespace ipc {

ModuleDefinition::ModuleDefinition(fn::String name) : _name(std::move(name)) {}

ModuleDefinition::~ModuleDefinition() = default;

}  // namespace ipc
