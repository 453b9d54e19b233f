"""Per-branch wiki building: plans, pages, prose carry and freshness checks."""
