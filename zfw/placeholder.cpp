// Replaced by the framework modules.
