# Thin wrapper over the two scripts the README names.
.PHONY: demo test
demo:
	bash scripts/demo
test:
	bash scripts/test
