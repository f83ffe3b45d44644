from companion import Analyze


def test_an_unknown_option_is_wrong_usage(analyze: Analyze) -> None:
    result = analyze("--no-such-option")
    assert result.status == 2
    assert result.output == ""
    assert result.errors == "lofter-analyze: The following argument was not expected: --no-such-option\n"


def test_help_is_printed_on_standard_output(analyze: Analyze) -> None:
    result = analyze("--help")
    assert result.status == 0
    assert "lofter-analyze" in result.output
    assert result.errors == ""
