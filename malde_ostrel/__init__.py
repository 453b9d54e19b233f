"""Host package of the repository documentation generator."""
