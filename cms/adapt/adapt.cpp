// placeholder: filled in by the change that implements it
