# Installation rules (filled in with the package files).
