# SPDX-License-Identifier: Apache-2.0
"""The host's product configuration file, seen through the product root that a run takes its files from."""

import pytest

from harness.places import make_dir
from harness.product import Product, configure
from harness.program import source


@pytest.fixture
def other(workspace):
    """Makes a product under another root, whose scout tells which root it is."""
    def make(name):
        root = make_dir(workspace / "roots") / name
        product = Product(root).install()
        product.set_scout(f"print q({name});")
        return root

    return make


@pytest.fixture
def used_root(tallowick, product, server):
    """Runs with a configuration file and returns what the scout said: the root that was used."""
    product.set_scout("print q(the default);")

    def run(text):
        configure(text)
        result = tallowick.run("--send-scout", *source(server))
        assert result.status == 0
        return result.session.scout_result.decode()

    return run


def test_default_without_a_file(used_root):
    assert used_root(None) == "the default"


def test_default_with_an_empty_file(used_root):
    assert used_root("") == "the default"


def test_plain_definition(used_root, other):
    assert used_root(f"PRODUCT_ROOT_D {other('p')}\n") == "p"


def test_definition_on_a_last_line_without_newline(used_root, other):
    assert used_root(f"PRODUCT_ROOT_D {other('p')}") == "p"


def test_blanks_before_the_name_and_the_value_are_skipped(used_root, other):
    assert used_root(f"\n  \t PRODUCT_ROOT_D \t  {other('p')}\n") == "p"


def test_comment_after_one_blank_is_trimmed(used_root, other):
    assert used_root(f"PRODUCT_ROOT_D {other('p')} # root\n") == "p"


def test_two_trailing_blanks_stay_in_the_value(used_root, other):
    root = other("p  ")
    assert used_root(f"PRODUCT_ROOT_D {root}\n") == "p  "


def test_one_trailing_blank_and_the_newline_stay_in_the_value(used_root, other):
    root = other("p \n")
    assert used_root(f"PRODUCT_ROOT_D {root}") == "p \n"


def test_line_that_is_a_comment_counts_for_nothing(used_root, other):
    assert used_root(f"# PRODUCT_ROOT_D {other('p')}\n") == "the default"


def test_equals_sign_after_the_name_is_refused(used_root, other):
    assert used_root(f"PRODUCT_ROOT_D={other('p')}\n") == "the default"


def test_name_without_value_is_refused(used_root):
    assert used_root("PRODUCT_ROOT_D\n") == "the default"
    assert used_root("PRODUCT_ROOT_D # nothing\n") == "the default"
    assert used_root("PRODUCT_ROOT_D") == "the default"


def test_rest_of_the_file_is_read_after_a_bad_line(used_root, other):
    assert used_root(f"BAD=1\nWORSE\n-x\nPRODUCT_ROOT_D {other('p')}\nLAST=\n") == "p"


def test_later_definition_wins(used_root, other):
    assert used_root(f"PRODUCT_ROOT_D {other('first')}\nPRODUCT_ROOT_D {other('second')}\n") == "second"


def test_name_is_case_sensitive(used_root, other):
    assert used_root(f"product_root_d {other('p')}\n") == "the default"


def test_many_other_variables_do_no_harm(used_root, other):
    lines = [f"VARIABLE_{number} value{number}" for number in range(200)]
    lines.insert(100, f"PRODUCT_ROOT_D {other('p')}")
    assert used_root("\n".join(lines) + "\n") == "p"


def test_log_properties_come_from_the_product_root_as_well(tallowick, other):
    root = other("p")
    (root / "DVX" / "log4cpp.properties").unlink()
    configure(f"PRODUCT_ROOT_D {root}\n")
    run = tallowick.run("--send-scout", *source(1))
    assert run.status == 1
    assert f"{root}/DVX/log4cpp.properties" in run.err


@pytest.mark.parametrize("text, complaint", [
    ("PRODUCT_ROOT_D=/opt/p\n", "Invalid variable definition PRODUCT_ROOT_D=/opt/p\n\n"
                                "Expected a space after variable name\n"),
    ("PRODUCT_ROOT_D\n", "Invalid variable definition PRODUCT_ROOT_D\n\nExpected a value"),
    (None, "unable to open configuration file /etc/ovn/ovn.conf: No such file or directory\n"),
])
def test_bad_configuration_is_complained_about_somewhere(tallowick, server, text, complaint):
    configure(text)
    run = tallowick.run("--send-scout", *source(server))
    assert run.status == 0
    assert complaint in run.err + run.session.log
