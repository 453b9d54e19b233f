"""Background workers of the host package."""
