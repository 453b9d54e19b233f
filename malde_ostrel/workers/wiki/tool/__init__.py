"""The ``ostrel-wiki`` tool: the store, the planner, repository snapshots,
carried texts, the journal, the doctor and the command line, over the plan
of record and its collaborators in the package above."""
